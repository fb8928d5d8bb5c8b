#pragma once
// A product root with libraries, and the list of the calls that they got.

#include <cstdlib>
#include <filesystem>
#include <string>

#include <tlx/HostConfig.h>

#include "support/TemporaryDirectory.h"

namespace QmTest {

class PluginTree : public TemporaryDirectory
{
  public:
    PluginTree()
    {
        std::filesystem::create_directories(plugins());
        Veltrane::Quillmark::Tlx::HostConfig::instance().setRoot(path().string());
        ::setenv("QM_PLUGIN_CALLS", path("calls").c_str(), 1);
    }

    /// Copies one of the tests' libraries in and returns its path there.
    std::string addPlugin(const std::string& library, const std::string& as = "") const
    {
        return add(library, plugins() / ((as.empty() ? library : as) + ".so"));
    }
    std::string addLibrary(const std::string& library, const std::string& as) const
    {
        return add(library, path() / "lib" / as);
    }
    std::filesystem::path plugins() const { return path() / "lib" / "plugins"; }
    /// The lines that the libraries wrote, in order.
    Lines calls() const { return linesOf(path("calls")); }

  private:
    static std::string add(const std::string& library, const std::filesystem::path& to)
    {
        std::filesystem::copy_file(std::filesystem::path(QM_TEST_PLUGINS) / (library + ".so"), to);
        return to.string();
    }
};

} // namespace QmTest
