#pragma once
// A product tree with libraries in it, and what these were asked for.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include <tlx/HostConfig.h>

namespace QmTest {

class PluginTree
{
  public:
    PluginTree()
    {
        std::string name = (std::filesystem::temp_directory_path() / "qmtest.XXXXXX").string();
        EXPECT_NE(::mkdtemp(name.data()), nullptr);
        m_root = name;
        std::filesystem::create_directories(m_root / "lib" / "plugins");
        Veltrane::Quillmark::Tlx::HostConfig::instance().setRoot(name);
        ::setenv("QM_PLUGIN_CALLS", (m_root / "calls").c_str(), 1);
    }
    ~PluginTree() { std::filesystem::remove_all(m_root); }
    PluginTree(const PluginTree&) = delete;
    PluginTree& operator=(const PluginTree&) = delete;

    /// Copies one of the tests' libraries in; its path there.
    std::string addPlugin(const std::string& library, const std::string& as = "") const
    {
        return add(library, m_root / "lib" / "plugins" / ((as.empty() ? library : as) + ".so"));
    }
    std::string addLibrary(const std::string& library, const std::string& as) const
    {
        return add(library, m_root / "lib" / as);
    }
    std::filesystem::path plugins() const { return m_root / "lib" / "plugins"; }
    std::filesystem::path root() const { return m_root; }
    void write(const std::filesystem::path& file, const std::string& text) const
    {
        std::ofstream(file, std::ios::binary) << text;
    }
    /// The lines that the libraries wrote, in order.
    std::vector<std::string> calls() const
    {
        std::vector<std::string> lines;
        std::ifstream file(m_root / "calls");
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }

  private:
    static std::string add(const std::string& library, const std::filesystem::path& to)
    {
        std::filesystem::copy_file(std::filesystem::path(QM_TEST_PLUGINS) / (library + ".so"), to);
        return to.string();
    }

    std::filesystem::path m_root;
};

} // namespace QmTest
