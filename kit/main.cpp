// Checks libraries of explorers.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <unistd.h>

#include <DiscDB.h>
#include <tlx/Assert.h>
#include <tlx/File.h>
#include <tlx/HostConfig.h>
#include <tlx/Plugin.h>

#include "Battery.h"

using namespace Veltrane::Quillmark;

namespace {

constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;
constexpr int EXIT_CANNOT_RUN = 77; ///< test drivers count it as skipped

constexpr const char* USAGE =
    "usage: qm-explorer-check LIBRARY...\n"
    "Loads libraries of explorers and checks every explorer that they register, on a temporary\n"
    "store. Exit code 0 means that every check passed.\n";

int check(int count, char** libraries, const Tlx::TlxPathname& root)
{
    Tlx::HostConfig::instance().setRoot(root);
    Tlx::HostConfig::instance().readText("SERVER = localhost\nCLIENT_NAME = checked\n", "qm.conf");
    Tlx::setKitVersion({"QmExplorerKitVersion", QM_EXPLORER_KIT_VERSION});
    Tlx::DiscoverySvc::getDiscoveryDBDatabase()->init("");
    const Tlx::AutoDereference<Kit::CheckedRepository> repository(new Kit::CheckedRepository);
    Kit::Report report;
    for (int i = 0; i < count; ++i)
        Kit::checkLibrary(std::filesystem::absolute(libraries[i]).string(), *repository, report);
    report.check(Tlx::assertionCount() == 0, "no assertion failed");
    std::printf("%d passed, %d failed\n", report.passed(), report.failed());
    return report.failed() == 0 ? EXIT_SUCCESS : EXIT_FAILED;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || std::strcmp(argv[1], "--help") == 0) {
        std::fputs(USAGE, argc < 2 ? stderr : stdout);
        return argc < 2 ? EXIT_USAGE : EXIT_SUCCESS;
    }
    if (::geteuid() != 0) {
        std::fputs("qm-explorer-check: stored records have permissions 0: run it as root\n",
                   stderr);
        return EXIT_CANNOT_RUN;
    }
    const auto root = Tlx::TemporaryDirectory::make("qmcheck.");
    if (!root) {
        std::fprintf(stderr, "qm-explorer-check: cannot make a temporary directory: %s\n",
                     root.error().message().c_str());
        return EXIT_FAILED;
    }
    return check(argc - 1, argv + 1, root->path());
}
