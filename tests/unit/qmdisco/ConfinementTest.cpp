// What the daemon gives up: other users' access to its files, core dumps, writing elsewhere.

#include "Confinement.h"

#include <cerrno>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tlx/File.h>

#include "DaemonFixture.h"
#include "support/ChildProcess.h"

using namespace Veltrane::Quillmark;
using namespace Veltrane::Quillmark::Qmdisco;

namespace {

using ConfinementTest = QmTest::DaemonFixture;

TEST_F(ConfinementTest, TheDaemonsFilesAreItsOwn)
{
    ::umask(0);
    mode_t mask = 0;
    m_script.in["doRun"] = [&] { mask = ::umask(0077); };
    EXPECT_EQ(EC_OK, run());
    EXPECT_EQ(0077u, mask);
    const auto modeOf = [this](const std::string& name) {
        return static_cast<unsigned>(std::filesystem::status(m_root.path(name)).permissions());
    };
    EXPECT_EQ(0600u, modeOf("run/qmdisco.pid"));
    EXPECT_EQ(0640u, modeOf("run/status.json"));
    EXPECT_EQ(0640u, modeOf("logs/qmdisco.log"));
    EXPECT_EQ(0640u, modeOf("logs/qmdisco-errors.log"));
}

TEST_F(ConfinementTest, TheDaemonLeavesNoCoreDump)
{
    const rlimit much = {RLIM_INFINITY, RLIM_INFINITY};
    (void)::setrlimit(RLIMIT_CORE, &much);
    ASSERT_EQ(1, ::prctl(PR_GET_DUMPABLE, 0, 0, 0, 0));
    int dumpable = -1;
    rlimit limit = {1, 1};
    m_script.in["doRun"] = [&] {
        dumpable = ::prctl(PR_GET_DUMPABLE, 0, 0, 0, 0);
        (void)::getrlimit(RLIMIT_CORE, &limit);
    };
    EXPECT_EQ(EC_OK, run());
    EXPECT_EQ(0, dumpable);
    EXPECT_EQ(0u, limit.rlim_cur);
    EXPECT_EQ(0u, limit.rlim_max);
}

TEST_F(ConfinementTest, ADirectoryThatOthersMayWriteIsWarnedAbout)
{
    m_root.makeDirectory("logs");
    ASSERT_EQ(0, ::chmod(m_root.path("logs").c_str(), 0777));
    EXPECT_EQ(EC_OK, run());
    const std::string line =
        "The product tree is not safe: others may write " + m_root.path("logs") + " (mode 0777)";
    EXPECT_THAT(failures(), testing::Contains(line));
    EXPECT_THAT(m_log.severities(line), testing::ElementsAre(Tlx::LogSeverity::Warning));
}

/// Runs the checks in a process that may write only mine/ and mine.txt. Returns those that failed.
/// On a kernel without the means it expects that nothing is confined.
struct Confined
{
    explicit Confined(const QmTest::TestRoot& root) : m_root(root)
    {
        for (const char* name : {"mine/sub", "other"})
            m_root.makeDirectory(name);
        for (const char* name : {"mine/file", "mine.txt", "other/file", "other/second"})
            m_root.write(name, "old");
    }
    int run()
    {
        QmTest::ChildProcess child([this] {
            const auto confined = confineWrites(
                {m_root.path("mine"), m_root.path("mine.txt"), m_root.path("absent")});
            if (!confined && confined.error() != std::errc::function_not_supported &&
                confined.error() != std::errc::operation_not_supported)
                return 1;
            m_denied = confined ? EACCES : 0;
            return check();
        });
        child.awaitEnd();
        return child.exitCode();
    }
    /// Returns the line of the first failure.
    int check() const
    {
        if (opening("mine/file", O_RDWR | O_TRUNC) != 0 ||
            opening("mine/sub/new", O_WRONLY | O_CREAT) != 0 ||
            opening("mine.txt", O_WRONLY | O_APPEND) != 0 || opening("other/file", O_RDONLY) != 0)
            return __LINE__;
        if (opening("other/file", O_RDWR) != m_denied ||
            opening("other/new", O_WRONLY | O_CREAT) != m_denied)
            return __LINE__;
        if (errorOf(::unlink(path("other/second").c_str())) != m_denied ||
            errorOf(::mkdir(path("other/directory").c_str(), 0700)) != m_denied ||
            errorOf(::symlink("x", path("other/link").c_str())) != m_denied)
            return __LINE__;
        if (errorOf(::rename(path("mine/file").c_str(), path("mine/sub/file").c_str())) != 0)
            return __LINE__;
        const int moved = errorOf(::rename(path("mine/sub/file").c_str(), path("other/x").c_str()));
        if ((moved == 0) != (m_denied == 0))
            return __LINE__;
        int inThread = -1;
        std::thread([&] { inThread = opening("other/file", O_RDWR); }).join();
        return inThread == m_denied ? 0 : __LINE__;
    }
    static int errorOf(int answer) { return answer == 0 ? 0 : errno; }
    int opening(const std::string& name, int flags) const
    {
        const auto file = Tlx::openFile(path(name), flags, 0600);
        return file ? 0 : file.error().value();
    }
    std::string path(const std::string& name) const { return m_root.path(name); }

    const QmTest::TestRoot& m_root;
    int m_denied = 0;
};

TEST_F(ConfinementTest, AConfinedProcessWritesOnlyWhatIsNamed)
{
    EXPECT_EQ(0, Confined(m_root).run()) << "the line of the check that failed";
}

TEST_F(ConfinementTest, ADaemonOfRootIsNotConfined)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root";
    int answer = -1;
    m_script.in["doRun"] = [&] {
        answer = Tlx::openFile(m_root.path("elsewhere"), O_WRONLY | O_CREAT, 0600) ? 0 : errno;
    };
    EXPECT_EQ(EC_OK, run());
    EXPECT_EQ(0, answer);
}

} // namespace
