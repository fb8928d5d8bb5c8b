// One daemon a root: the pid file between two processes.

#include "PidFile.h"

#include <csignal>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TestRoot.h"

using namespace Veltrane::Quillmark::Qmdisco;
using QmTest::TestRoot;

namespace {

/// Another process that holds the root's pid file until it is told to go.
class OtherDaemon
{
  public:
    explicit OtherDaemon(const TestRoot& root)
    {
        int up[2];
        int end[2];
        if (::pipe(up) != 0 || ::pipe(end) != 0)
            throw std::runtime_error("no pipes");
        m_pid = ::fork();
        if (m_pid == 0) {
            ::close(end[1]);
            auto held = PidFile::take(root.path()).value_or(nullptr);
            const char taken = held ? 'y' : 'n';
            if (::write(up[1], &taken, 1) != 1)
                ::_exit(1);
            char ignored;
            [[maybe_unused]] const ssize_t n = ::read(end[0], &ignored, 1);
            held.reset();
            ::_exit(0);
        }
        ::close(up[1]);
        ::close(end[0]);
        m_end = end[1];
        char taken = 'n';
        m_holds = ::read(up[0], &taken, 1) == 1 && taken == 'y';
        ::close(up[0]);
    }
    ~OtherDaemon()
    {
        if (m_pid > 0)
            stop();
    }
    bool holds() const { return m_holds; }
    pid_t pid() const { return m_pid; }
    void stop()
    {
        ::close(m_end);
        ::waitpid(m_pid, nullptr, 0);
        m_pid = 0;
    }
    void kill()
    {
        ::kill(m_pid, SIGKILL);
        stop();
    }

  private:
    pid_t m_pid = 0;
    int m_end = -1;
    bool m_holds = false;
};

class PidFileTest : public testing::Test
{
  protected:
    PidFileTest() { m_root.makeDirectory("run"); }

    std::unique_ptr<PidFile> take()
    {
        auto taken = PidFile::take(m_root.path());
        if (taken)
            return std::move(*taken);
        m_failure = taken.error();
        return nullptr;
    }
    void expectTaken()
    {
        const auto held = take();
        ASSERT_TRUE(held) << m_failure.text;
        EXPECT_EQ(std::to_string(::getpid()) + "\n", m_root.read("run/qmdisco.pid"));
        EXPECT_EQ("", held->writeError());
    }

    TestRoot m_root;
    Failure m_failure;
};

TEST_F(PidFileTest, HoldsThePidAndIsEmptiedAtTheEnd)
{
    expectTaken();
    EXPECT_TRUE(m_root.exists("run/qmdisco.pid"));
    EXPECT_EQ("", m_root.read("run/qmdisco.pid"));
}

TEST_F(PidFileTest, AnotherProcessIsNamedAndLeftAlone)
{
    OtherDaemon other(m_root);
    ASSERT_TRUE(other.holds());
    const std::string content = std::to_string(other.pid()) + "\n";
    EXPECT_FALSE(take());
    EXPECT_EQ(EC_ALREADY_RUNNING, m_failure.code);
    EXPECT_EQ("another qmdisco is running on " + m_root.path() + " (pid " +
                  std::to_string(other.pid()) + ")",
              m_failure.text);
    EXPECT_EQ(content, m_root.read("run/qmdisco.pid"));
    // The refused try must not have dropped the other's lock.
    EXPECT_FALSE(take());
    other.stop();
    expectTaken();
}

TEST_F(PidFileTest, TheHolderIsNamedWhateverTheFileSays)
{
    OtherDaemon other(m_root);
    ASSERT_TRUE(other.holds());
    for (const char* content : {"", "999999\n", "nonsense"}) {
        m_root.write("run/qmdisco.pid", content);
        EXPECT_FALSE(take());
        EXPECT_EQ("another qmdisco is running on " + m_root.path() + " (pid " +
                      std::to_string(other.pid()) + ")",
                  m_failure.text);
    }
}

TEST_F(PidFileTest, AKilledProcessIsInNobodysWay)
{
    OtherDaemon other(m_root);
    ASSERT_TRUE(other.holds());
    other.kill();
    EXPECT_NE("", m_root.read("run/qmdisco.pid"));
    expectTaken();
}

TEST_F(PidFileTest, ASecondHolderInOneProcessIsRefused)
{
    const auto held = take();
    ASSERT_TRUE(held);
    EXPECT_FALSE(take());
    EXPECT_EQ("another qmdisco is running on " + m_root.path() + " (pid " +
                  std::to_string(::getpid()) + ")",
              m_failure.text);
}

TEST_F(PidFileTest, ALongerPidLeavesNoRest)
{
    m_root.write("run/qmdisco.pid", "12345678901234567890 and more\n");
    expectTaken();
}

TEST_F(PidFileTest, AFileThatCannotBeOpenedIsNamed)
{
    m_root.makeDirectory("run/qmdisco.pid");
    EXPECT_FALSE(take());
    EXPECT_EQ(EC_ROOT_UNUSABLE, m_failure.code);
    EXPECT_EQ("cannot open " + m_root.path("run/qmdisco.pid") + ": Is a directory", m_failure.text);
}

TEST_F(PidFileTest, AFullDiskLeavesTheRootHeld)
{
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit nothing{0, RLIM_INFINITY};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &nothing));
    const auto held = take();
    const rlimit everything{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &everything));
    ASSERT_TRUE(held) << m_failure.text;
    EXPECT_EQ("cannot write " + m_root.path("run/qmdisco.pid") + ": File too large",
              held->writeError());
    OtherDaemon other(m_root);
    EXPECT_FALSE(other.holds());
}

} // namespace
