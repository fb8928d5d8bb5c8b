// The pid file keeps a second daemon away from a root.

#include "PidFile.h"

#include <array>
#include <csignal>
#include <memory>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TestRoot.h"
#include "support/KernelLocks.h"
#include "support/PeerProcess.h"

using namespace Veltrane::Quillmark::Qmdisco;
using QmTest::TestRoot;

namespace {

/// Another process that takes the root's pid file and holds it until stop().
class OtherDaemon : public QmTest::PeerProcess
{
  public:
    explicit OtherDaemon(const TestRoot& root)
        : PeerProcess([path = root.path(),
                       held = std::make_shared<std::unique_ptr<PidFile>>()](const std::string&) {
              auto taken = PidFile::take(path);
              if (!taken)
                  return taken.error().text;
              *held = std::move(*taken);
              return std::string("holds");
          }),
          m_holds(ask("take") == "holds")
    {
    }
    bool holds() const { return m_holds; }

  private:
    const bool m_holds;
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

TEST_F(PidFileTest, AHolderWithoutAPidInTheFileIsNotNamed)
{
    OtherDaemon other(m_root);
    ASSERT_TRUE(other.holds());
    for (const char* content : {"", "nonsense", "0\n", "-1\n"}) {
        m_root.write("run/qmdisco.pid", content);
        EXPECT_FALSE(take());
        EXPECT_EQ(EC_ALREADY_RUNNING, m_failure.code);
        EXPECT_EQ("another qmdisco is running on " + m_root.path(), m_failure.text);
    }
}

TEST_F(PidFileTest, ARecordLockOfAnotherProgramIsRespected)
{
    m_root.write("run/qmdisco.pid", "77\n");
    QmTest::PeerProcess other([path = m_root.path("run/qmdisco.pid")](const std::string&) {
        const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC); // stays open
        return std::to_string(QmTest::setClassicLock(file, F_SETLK, F_WRLCK));
    });
    ASSERT_EQ("0", other.ask("lock"));
    EXPECT_FALSE(take());
    EXPECT_EQ("another qmdisco is running on " + m_root.path() + " (pid 77)", m_failure.text);
    other.stop();
    expectTaken();
}

TEST_F(PidFileTest, AProgramThatOutlivesTheDaemonDoesNotKeepTheRoot)
{
    // The child waits for the end of the test, as a program does that an explorer has started.
    std::array<int, 2> life{-1, -1};
    ASSERT_EQ(0, ::pipe2(life.data(), O_CLOEXEC));
    QmTest::PeerProcess daemon(
        [&, held = std::make_shared<std::unique_ptr<PidFile>>()](const std::string&) {
            ::close(life[1]);
            *held = take();
            const pid_t child = ::fork();
            if (child == 0) {
                char byte = 0;
                ::alarm(100);
                (void)!::read(life[0], &byte, 1);
                ::_exit(0);
            }
            return std::to_string(*held ? child : -1);
        });
    const long child = std::stol(daemon.ask("take"));
    ASSERT_GT(child, 0) << m_failure.text;
    EXPECT_FALSE(take());
    daemon.kill();
    EXPECT_EQ(0, ::kill(static_cast<pid_t>(child), 0));
    // The first thing that the child does is to close the file.
    EXPECT_TRUE(QmTest::eventually([this] { return take() != nullptr; }));
    ::close(life[0]);
    ::close(life[1]);
}

TEST_F(PidFileTest, AKilledProcessLeavesThePidFileFree)
{
    OtherDaemon other(m_root);
    ASSERT_TRUE(other.holds());
    other.kill();
    other.stop();
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
