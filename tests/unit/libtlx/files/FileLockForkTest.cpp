// A forked child has no lock of its parent, and does not change the parent's locks.

#include <tlx/FileLock.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "FileLockPeer.h"
#include "support/ChildProcess.h"
#include "support/ScriptedFileSystem.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::eventually;

namespace {

class FileLockForkTest : public testing::Test
{
  protected:
    FileLockForkTest() { m_peer.open(0, m_file.path()); }
    /// Runs the body in a child. Returns its result, or minus the signal that ended the child.
    static int inChild(const std::function<int()>& body)
    {
        return QmTest::ChildProcess(body, 30).exitCode();
    }
    /// A child may not have run yet. The first thing that it does is to close its parent's files.
    void expectFree(int number) const
    {
        EXPECT_TRUE(
            eventually([&] { return m_peer.ask("trywrite " + std::to_string(number)) == "ok"; }));
    }
    bool isOpenHere() const { return QmTest::descriptorOf(m_file.path()) != -1; }

    QmTest::LockedFile m_file;
    QmTest::Peer m_peer;
};

/// Makes the child return the line number of the first check that fails.
#define CHILD_CHECK(condition)                                                                     \
    do {                                                                                           \
        if (!(condition))                                                                          \
            return __LINE__ % 250 + 1;                                                             \
    } while (false)

TEST_F(FileLockForkTest, aChildHasNoLocks)
{
    auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_write());
    EXPECT_EQ(0, inChild([&] {
                  const auto refused = [&](int (FileLock::*operation)()) {
                      errno = 0;
                      return ((*lock).*operation)() == -1 && errno == ENOLCK;
                  };
                  CHILD_CHECK(lock->get_handle() == -1);
                  CHILD_CHECK(lock->level() == LockLevel::None);
                  CHILD_CHECK(refused(&FileLock::acquire_read));
                  CHILD_CHECK(refused(&FileLock::acquire_write));
                  CHILD_CHECK(refused(&FileLock::tryacquire_read));
                  CHILD_CHECK(refused(&FileLock::tryacquire_write));
                  CHILD_CHECK(refused(&FileLock::tryacquire_write_upgrade));
                  CHILD_CHECK(refused(&FileLock::release));
                  CHILD_CHECK(!lock->isStillAt(m_file.path()));
                  CHILD_CHECK(FileLock::counts().holders == 0);
                  CHILD_CHECK(FileLock::counts().files == 0);
                  CHILD_CHECK(!isOpenHere());
                  return 0;
              }));
    EXPECT_EQ("Write", m_peer.sees());
    EXPECT_EQ(LockLevel::Write, lock->level());
    EXPECT_TRUE(isOpenHere());
}

TEST_F(FileLockForkTest, aChildMayDestroyInheritedLocks)
{
    auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_write());
    EXPECT_EQ(0, inChild([&] {
                  const std::size_t before = QmTest::descriptorCount();
                  lock.reset();
                  CHILD_CHECK(QmTest::descriptorCount() == before);
                  CHILD_CHECK(FileLock::counts().files == 0);
                  return 0;
              }));
    EXPECT_EQ("Write", m_peer.sees());
    EXPECT_EQ(0, lock->release());
    EXPECT_EQ("None", m_peer.sees());
}

TEST_F(FileLockForkTest, aChildLocksForItself)
{
    auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_read());
    EXPECT_EQ(0, inChild([&] {
                  auto own = m_file.open();
                  CHILD_CHECK(own->tryacquire_write() == -1 && errno == EBUSY); // parent has Read
                  CHILD_CHECK(own->tryacquire_read() == 0);
                  CHILD_CHECK(FileLock::counts().holders == 1);
                  return 0;
              }));
    EXPECT_EQ(0, lock->release());
    EXPECT_EQ(0, inChild([&] {
                  auto own = m_file.open();
                  CHILD_CHECK(own->tryacquire_write() == 0);
                  CHILD_CHECK(m_peer.sees() == "Write");
                  lock.reset(); // the parent's
                  CHILD_CHECK(m_peer.sees() == "Write");
                  CHILD_CHECK(own->release() == 0);
                  CHILD_CHECK(m_peer.sees() == "None");
                  own.reset();
                  CHILD_CHECK(!isOpenHere());
                  return 0;
              }));
    EXPECT_EQ("None", m_peer.sees());
    EXPECT_EQ(0, lock->acquire_write());
}

TEST_F(FileLockForkTest, aChildOfAChildLocksForItself)
{
    auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_read());
    EXPECT_EQ(0, inChild([&] {
                  auto own = m_file.open();
                  CHILD_CHECK(own->tryacquire_read() == 0);
                  return inChild([&] {
                      CHILD_CHECK(lock->level() == LockLevel::None);
                      CHILD_CHECK(own->level() == LockLevel::None);
                      CHILD_CHECK(!isOpenHere());
                      CHILD_CHECK(m_file.open()->tryacquire_write() == -1 && errno == EBUSY);
                      CHILD_CHECK(m_file.open()->tryacquire_read() == 0);
                      return 0;
                  });
              }));
    EXPECT_EQ("Read", m_peer.sees());
}

TEST_F(FileLockForkTest, aChildDoesNotHangOnWhatThreadsOfItsParentHeld)
{
    auto gated = m_file.open();
    auto waiting = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    // In the parent, one thread has the gate and the turn, and another waits for the peer.
    std::promise<void> inGate;
    std::promise<void> leaveGate;
    std::thread holder([&] {
        const WriterTurn turn(*gated);
        const FileGate gate(*gated);
        inGate.set_value();
        leaveGate.get_future().wait_for(QmTest::PATIENCE);
    });
    inGate.get_future().wait();
    int answer = -1;
    std::thread waiter([&] { answer = waiting->acquire_write(); });
    ASSERT_TRUE(eventually([&] { return FileLock::counts().waiting == 1; }));

    EXPECT_EQ(0, inChild([&] {
                  const WriterTurn turn(*gated);
                  const FileGate gate(*gated);
                  auto own = m_file.open();
                  const WriterTurn ownTurn(*own);
                  const FileGate ownGate(*own);
                  CHILD_CHECK(own->tryacquire_read() == 0);
                  CHILD_CHECK(FileLock::counts().waiting == 0);
                  waiting.reset();
                  gated.reset();
                  CHILD_CHECK(own->release() == 0);
                  own.reset();
                  CHILD_CHECK(FileLock::counts().holders == 0);
                  return 0;
              }));

    EXPECT_EQ(1u, FileLock::counts().waiting);
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    waiter.join();
    leaveGate.set_value();
    holder.join();
    EXPECT_EQ(0, answer);
    EXPECT_EQ("Write", m_peer.sees());
}

TEST_F(FileLockForkTest, aChildMayLeaveTheGateThatItsThreadHadInTheParent)
{
    const auto lock = m_file.open();
    auto turn = std::make_unique<WriterTurn>(*lock);
    auto gate = std::make_unique<FileGate>(*lock);
    EXPECT_EQ(0, inChild([&] {
                  gate.reset();
                  turn.reset();
                  const auto own =
                      openLocked(m_file.path(), O_RDWR, 0, LockLevel::Write, LockWait::TRY);
                  CHILD_CHECK(own.has_value());
                  return 0;
              }));
    // In the parent, both still exclude other threads.
    std::atomic<bool> through{false};
    std::thread other([&] {
        const auto second = m_file.open();
        const WriterTurn otherTurn(*second);
        const FileGate otherGate(*second);
        through = true;
    });
    EXPECT_FALSE(through);
    gate.reset();
    turn.reset();
    other.join();
    EXPECT_TRUE(through);
}

/// A process that takes a lock and forks a child. The child outlives it, and ends with this object.
class LockingParent
{
  public:
    /// @param lock runs in the parent. It forks with the given function and keeps the returned
    /// lock.
    using Lock = std::function<std::unique_ptr<FileLock>(const std::function<void()>& forkChild)>;

    explicit LockingParent(const Lock& lock)
        : m_life(pipe()), m_report(pipe()), m_parent([&] { return run(lock); })
    {
        m_report[1].reset();
        (void)readFull(m_report[0].get(), reinterpret_cast<char*>(&m_child), sizeof m_child);
    }

    void killParent() const { m_parent.kill(); }
    bool childLives() const { return m_child > 0 && ::kill(m_child, 0) == 0; }

  private:
    using Pipe = std::array<FileDescriptor, 2>; // for reading, for writing

    static Pipe pipe()
    {
        std::array<int, 2> ends{-1, -1};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
        return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
    }
    int run(const Lock& lock)
    {
        m_life[1].reset();
        pid_t child = 0;
        const auto held = lock([&] {
            child = ::fork();
            if (child == 0) {
                ::alarm(100);
                char byte = 0;
                (void)readFull(m_life[0].get(), &byte, 1); // until the test closes its end
                ::_exit(0);
            }
        });
        if (held)
            (void)writeAll(m_report[1].get(),
                           {reinterpret_cast<const char*>(&child), sizeof child});
        ::pause();
        return 0;
    }

    Pipe m_life;
    Pipe m_report;
    pid_t m_child = 0;
    QmTest::ChildProcess m_parent; ///< the last member: it uses the others
};

TEST_F(FileLockForkTest, theLockOfAKilledParentEndsAlthoughItsChildLives)
{
    const LockingParent processes([this](const auto& forkChild) {
        auto lock = m_file.open();
        if (lock->acquire_write() != 0)
            lock.reset();
        forkChild();
        return lock;
    });
    ASSERT_TRUE(processes.childLives());
    EXPECT_EQ("EBUSY", m_peer.ask("tryread 0"));
    processes.killParent();
    EXPECT_TRUE(processes.childLives());
    expectFree(0);
}

TEST_F(FileLockForkTest, aForkDuringAnOpenSharesNoLock)
{
    for (const int flags : {O_RDWR, O_RDWR | O_CREAT | O_EXCL}) {
        const std::string path = m_file.path(flags == O_RDWR ? "file" : "new");
        const LockingParent processes([&](const auto& forkChild) {
            QmTest::ScriptedFileSystem system;
            bool hasForked = false;
            system.afterOpen([&] {
                if (!std::exchange(hasForked, true))
                    forkChild();
            });
            auto lock = FileLock::open(path, flags, 0600);
            if (lock && lock->acquire_write() != 0)
                lock.reset();
            return lock;
        });
        ASSERT_TRUE(processes.childLives());
        m_peer.open(1, path);
        EXPECT_EQ("EBUSY", m_peer.ask("tryread 1"));
        processes.killParent();
        EXPECT_TRUE(processes.childLives());
        expectFree(1);
        EXPECT_EQ("ok", m_peer.ask("close 1"));
    }
}

TEST_F(FileLockForkTest, aForkWhileOthersLockAndWaitHarmsNobody)
{
    constexpr int FORKS = 200;
    const std::size_t before = QmTest::descriptorCount();
    std::atomic<bool> ends{false};
    std::atomic<int> failures{0};
    std::atomic<int> rounds{0};
    const auto work = [&](int (FileLock::*operation)()) {
        while (!ends) {
            const auto lock = m_file.open();
            if (!lock || ((*lock).*operation)() != 0)
                ++failures;
            ++rounds;
        }
    };
    m_peer.tell("rival 0 300");
    std::vector<std::thread> threads;
    threads.emplace_back(work, &FileLock::acquire_read);
    threads.emplace_back(work, &FileLock::acquire_write);
    for (int i = 0; i < FORKS; ++i) {
        ASSERT_EQ(0, inChild([&] {
                      CHILD_CHECK(FileLock::counts().holders == 0);
                      CHILD_CHECK(FileLock::counts().waiting == 0);
                      const auto own = m_file.open();
                      CHILD_CHECK(own);
                      CHILD_CHECK(own->tryacquire_read() == 0 || errno == EBUSY);
                      CHILD_CHECK(own->release() == 0);
                      const FileGate gate(*own);
                      CHILD_CHECK(FileLock::counts().holders == 1);
                      return 0;
                  }))
            << i;
    }
    EXPECT_TRUE(eventually([&] { return rounds > 10; }));
    ends = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ("ok", m_peer.answer());
    EXPECT_EQ(0, failures);
    EXPECT_EQ("None", m_peer.sees());
    EXPECT_EQ(0u, FileLock::counts().files);
    EXPECT_EQ(before, QmTest::descriptorCount());
}

} // namespace
