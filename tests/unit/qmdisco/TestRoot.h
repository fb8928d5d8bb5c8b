#pragma once
// A product root in a temporary directory.

#include <filesystem>
#include <string>

#include <tlx/HostConfig.h>

#include "ProductKeys.h"
#include "support/TemporaryDirectory.h"

namespace QmTest {

class TestRoot
{
  public:
    TestRoot()
    {
        Veltrane::Quillmark::declareProductKeys();
        Veltrane::Quillmark::Tlx::HostConfig::instance().setRoot(path());
    }

    /// The path in the form of the daemon's messages.
    std::string path() const { return m_directory.path().string(); }
    std::string path(const std::string& name) const { return m_directory.path(name); }

    void write(const std::string& name, const std::string& text) const
    {
        std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
        writeFile(path(name), text);
    }
    void makeDirectory(const std::string& name) const
    {
        std::filesystem::create_directories(path(name));
    }
    bool exists(const std::string& name) const { return std::filesystem::exists(path(name)); }
    std::string read(const std::string& name) const { return contentOf(path(name)); }

  private:
    TemporaryDirectory m_directory;
};

} // namespace QmTest
