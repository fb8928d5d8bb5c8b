#pragma once
// A product root of a test's own, removed with it.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include <cstdlib>

#include <gtest/gtest.h>

#include <tlx/HostConfig.h>

#include "ProductKeys.h"

namespace QmTest {

class TestRoot
{
  public:
    TestRoot()
    {
        std::string name = testing::TempDir() + "/qmdisco-XXXXXX";
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary directory");
        // The same form as the daemon gives it: messages name it.
        m_path = std::filesystem::path(name).lexically_normal().string();
        Veltrane::Quillmark::declareProductKeys();
        Veltrane::Quillmark::Tlx::HostConfig::instance().setRoot(m_path);
    }
    ~TestRoot() { std::filesystem::remove_all(m_path); }
    TestRoot(const TestRoot&) = delete;
    TestRoot& operator=(const TestRoot&) = delete;

    const std::string& path() const { return m_path; }
    std::string path(const std::string& name) const { return m_path + "/" + name; }

    void write(const std::string& name, const std::string& text) const
    {
        std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
        std::ofstream(path(name)) << text;
    }
    void makeDirectory(const std::string& name) const
    {
        std::filesystem::create_directories(path(name));
    }
    bool exists(const std::string& name) const { return std::filesystem::exists(path(name)); }
    std::string read(const std::string& name) const
    {
        std::ifstream file(path(name));
        return {std::istreambuf_iterator<char>(file), {}};
    }

  private:
    std::string m_path;
};

} // namespace QmTest
