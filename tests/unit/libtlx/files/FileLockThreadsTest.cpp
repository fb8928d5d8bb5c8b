// Locks that wait for other threads and for other processes.

#include <tlx/FileLock.h>

#include <algorithm>
#include <barrier>
#include <cerrno>
#include <future>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "FileLockPeer.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::descriptorCount;
using QmTest::eventually;
using QmTest::isBlocked;
using QmTest::PATIENCE;

namespace {

class FileLockThreadsTest : public testing::Test
{
  protected:
    FileLockThreadsTest()
    {
        m_peer.open(0, m_file.path());
        m_watcher.open(0, m_file.path());
    }

    /// Calls a locking operation in a thread. The future yields 0 or the error.
    static std::future<int> begin(FileLock& lock, int (FileLock::*operation)())
    {
        return std::async(std::launch::async,
                          [&lock, operation] { return (lock.*operation)() == 0 ? 0 : errno; });
    }
    static int outcome(std::future<int>& future)
    {
        return future.wait_for(PATIENCE) == std::future_status::ready ? future.get() : -1;
    }
    /// Begins the operation. Returns when the operation waits in the kernel.
    std::future<int> beginAndBlock(FileLock& lock, int (FileLock::*operation)())
    {
        auto future = begin(lock, operation);
        EXPECT_TRUE(eventually([&] { return isBlocked(::getpid(), m_file.path()); }));
        return future;
    }
    /// Two holders of each process have Read, and the peer waits for Write.
    void keepReadInBothProcesses(FileLock& first, FileLock& second)
    {
        EXPECT_EQ(0, first.acquire_read());
        EXPECT_EQ(0, second.acquire_read());
        m_peer.open(1, m_file.path());
        EXPECT_EQ("ok", m_peer.ask("read 0"));
        EXPECT_EQ("ok", m_peer.ask("read 1"));
        expectPeerBlocks("write 0", m_file.path());
    }
    void expectPeerBlocks(const std::string& command, const std::string& path)
    {
        m_peer.tell(command);
        EXPECT_TRUE(eventually([&] { return isBlocked(m_peer.pid(), path); }));
    }

    QmTest::LockedFile m_file;
    // The first members, because a process must fork before it has threads.
    QmTest::Peer m_peer;
    QmTest::Peer m_watcher;
};

TEST_F(FileLockThreadsTest, aWaitingLockWaitsForAnotherProcess)
{
    const auto lock = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("write 0"));
    auto reading = beginAndBlock(*lock, &FileLock::acquire_read);
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(reading));
    EXPECT_EQ(LockLevel::Read, lock->level());
    EXPECT_EQ("Read", m_watcher.sees());

    ASSERT_EQ("ok", m_peer.ask("read 0"));
    auto writing = beginAndBlock(*lock, &FileLock::acquire_write);
    ASSERT_EQ("ok", m_peer.ask("close 0"));
    EXPECT_EQ(0, outcome(writing));
    EXPECT_EQ(LockLevel::Write, lock->level());
    EXPECT_EQ("Write", m_watcher.sees());
}

TEST_F(FileLockThreadsTest, readsAreGrantedWhileAnotherThreadWaitsForWrite)
{
    auto reader = m_file.open(O_RDONLY);
    auto writer = m_file.open();
    auto lookup = m_file.open(O_RDONLY);
    auto trying = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    ASSERT_EQ(0, reader->acquire_read());
    auto writing = beginAndBlock(*writer, &FileLock::acquire_write);

    // These two get Read at once, although the writer still waits for the peer.
    EXPECT_EQ(0, lookup->acquire_read());
    EXPECT_EQ(0, trying->tryacquire_read());
    EXPECT_EQ(-1, trying->tryacquire_write_upgrade());
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(LockLevel::Read, trying->level());
    EXPECT_EQ(0, trying->release());
    // Now only the waiting writer is left. It is enough to make the try fail.
    EXPECT_EQ(0, lookup->release());
    EXPECT_EQ(0, reader->release());
    EXPECT_EQ(-1, trying->tryacquire_write());
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ("Read", m_watcher.sees());

    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(writing));
    EXPECT_EQ("Write", m_watcher.sees());
    writer.reset();
    EXPECT_EQ("None", m_watcher.sees());
}

TEST_F(FileLockThreadsTest, whileTheFirstLockOfTheProcessIsWaitedForATryIsBusyAndAWaitFollowsIt)
{
    auto writer = m_file.open();
    auto reader = m_file.open(O_RDONLY);
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    auto writing = beginAndBlock(*writer, &FileLock::acquire_write);
    EXPECT_EQ(-1, reader->tryacquire_read());
    EXPECT_EQ(EBUSY, errno);
    auto reading = begin(*reader, &FileLock::acquire_read);
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(writing));
    EXPECT_EQ(0, outcome(reading));
    EXPECT_EQ("Write", m_watcher.sees());
    writer.reset();
    EXPECT_EQ("Read", m_watcher.sees());
}

TEST_F(FileLockThreadsTest, aCloseDuringAWaitLeavesTheWaitingLock)
{
    const std::size_t before = descriptorCount();
    auto reader = m_file.open(O_RDONLY);
    auto writer = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    ASSERT_EQ(0, reader->acquire_read());
    auto writing = beginAndBlock(*writer, &FileLock::acquire_write);
    reader.reset();
    m_file.open().reset();
    EXPECT_EQ(1u, FileLock::counts().open);
    EXPECT_EQ(2u, FileLock::counts().parked);
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(writing));
    EXPECT_EQ("Write", m_watcher.sees());
    EXPECT_EQ(2u, FileLock::counts().parked);
    EXPECT_EQ(0, writer->release());
    EXPECT_EQ(0u, FileLock::counts().parked);
    writer.reset();
    EXPECT_EQ(before, descriptorCount());
}

TEST_F(FileLockThreadsTest, twoProcessesThatUpgradeDoNotWaitForEachOther)
{
    const auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_read());
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    expectPeerBlocks("write 0", m_file.path());
    // The peer gave up its Read before it waited, so this process goes on.
    EXPECT_EQ(0, lock->acquire_write());
    EXPECT_EQ("Write", m_watcher.sees());
    EXPECT_EQ(0, lock->release());
    EXPECT_EQ("ok", m_peer.answer());
    EXPECT_EQ("Write", m_watcher.sees());
}

TEST_F(FileLockThreadsTest, aTrueDeadlockIsAnErrorAndTheOtherProceeds)
{
    // In both processes another holder keeps Read, so neither process can give it up.
    auto upgrading = m_file.open();
    auto keeping = m_file.open(O_RDONLY);
    keepReadInBothProcesses(*upgrading, *keeping);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, upgrading->acquire_write());
    EXPECT_EQ(EDEADLK, errno);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(1900));
    EXPECT_EQ(LockLevel::Read, upgrading->level());
    EXPECT_EQ(0, keeping->release());
    EXPECT_EQ(-1, upgrading->tryacquire_write_upgrade()); // the peer still holds its Read
    EXPECT_EQ(0, upgrading->release());
    EXPECT_EQ("ok", m_peer.answer());
    EXPECT_EQ("Write", m_watcher.sees());
}

TEST_F(FileLockThreadsTest, aWaitCalledDeadlockGoesOnWhenTheOtherHolderReleases)
{
    // As above, but the other holder of this process releases while this process asks again.
    auto upgrading = m_file.open();
    auto keeping = m_file.open(O_RDONLY);
    keepReadInBothProcesses(*upgrading, *keeping);
    auto writing = begin(*upgrading, &FileLock::acquire_write);
    EXPECT_EQ(0, keeping->release());
    // Now this process waits without a Read, and the peer gets the lock.
    EXPECT_EQ("ok", m_peer.answer());
    EXPECT_EQ("Write", m_watcher.sees());
    ASSERT_EQ("ok", m_peer.ask("close 1"));
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(writing));
    EXPECT_EQ("Write", m_watcher.sees());
}

TEST_F(FileLockThreadsTest, twoThreadsThatTheKernelTakesForADeadlockBothGetTheirs)
{
    // The peer waits for a file that one thread holds and will release. Another thread waits for a
    // file that the peer holds.
    const std::string otherPath = m_file.path("other");
    auto other = FileLock::open(otherPath, O_RDWR | O_CREAT, 0600);
    const auto lock = m_file.open();
    ASSERT_EQ(0, other->acquire_write());
    m_peer.open(1, otherPath);
    ASSERT_EQ("ok", m_peer.ask("write 0"));
    expectPeerBlocks("write 1", otherPath);
    auto writing = begin(*lock, &FileLock::acquire_write);
    EXPECT_EQ(0, other->release());
    EXPECT_EQ("ok", m_peer.answer());
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(writing));
}

TEST_F(FileLockThreadsTest, aFailedWaitHasTheReadThatItGaveUpAgain)
{
    const std::string otherPath = m_file.path("other");
    auto other = FileLock::open(otherPath, O_RDWR | O_CREAT, 0600);
    const auto lock = m_file.open();
    ASSERT_EQ(0, other->acquire_write());
    ASSERT_EQ(0, lock->acquire_read());
    m_peer.open(1, otherPath);
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    expectPeerBlocks("write 1", otherPath);
    EXPECT_EQ(-1, lock->acquire_write());
    EXPECT_EQ(EDEADLK, errno);
    EXPECT_EQ(LockLevel::Read, lock->level());
    EXPECT_EQ(0, other->release());
    EXPECT_EQ("ok", m_peer.answer());
    ASSERT_EQ("ok", m_peer.ask("close 0"));
    EXPECT_EQ("Read", m_watcher.sees());
}

/// Does random operations on one holder.
class Worker
{
  public:
    Worker(const QmTest::LockedFile& file, unsigned seed) : m_file(file), m_random(seed)
    {
        m_lock = m_file.open();
    }
    void step()
    {
        switch (m_random() % 9) {
        case 0:
        case 1:
            m_lock->release();
            break;
        case 2:
            m_lock->acquire_read();
            break;
        case 3:
            m_lock->acquire_write();
            break;
        case 4:
            m_lock->tryacquire_read();
            break;
        case 5:
            m_lock->tryacquire_write();
            break;
        case 6:
            m_lock->tryacquire_write_upgrade();
            break;
        default: // uses a second holder for a lookup, or this holder
            if (m_random() % 2 == 0) {
                const auto lookup = m_file.open(O_RDONLY);
                lookup->acquire_read();
            } else {
                m_lock.reset();
                m_lock = m_file.open();
            }
        }
    }
    LockLevel level() const { return m_lock->level(); }

  private:
    const QmTest::LockedFile& m_file;
    std::minstd_rand m_random;
    std::unique_ptr<FileLock> m_lock;
};

std::string name(LockLevel level)
{
    return level == LockLevel::Write ? "Write" : level == LockLevel::Read ? "Read" : "None";
}

TEST_F(FileLockThreadsTest, afterEveryStepOfTwoThreadsTheProcessHoldsTheHighestOfTheirLevels)
{
    constexpr int STEPS = 1000;
    const std::size_t before = descriptorCount();
    {
        Worker first(m_file, 1);
        Worker second(m_file, 2);
        int checked = 0;
        const auto check = [&]() noexcept {
            const LockLevel highest = std::max(first.level(), second.level());
            EXPECT_EQ(name(highest), m_watcher.sees());
            EXPECT_EQ(2u, FileLock::counts().open);
            if (highest == LockLevel::None) {
                EXPECT_EQ(0u, FileLock::counts().parked);
            }
            ++checked;
        };
        std::barrier together(2, check);
        const auto run = [&together](Worker& worker) {
            for (int i = 0; i < STEPS; ++i) {
                worker.step();
                together.arrive_and_wait();
            }
        };
        std::thread thread([&] { run(second); });
        run(first);
        thread.join();
        EXPECT_EQ(STEPS, checked);
    }
    EXPECT_EQ("None", m_watcher.sees());
    EXPECT_EQ(before, descriptorCount());
}

TEST_F(FileLockThreadsTest, noHolderLosesItsLockWhileThreadsAndAnotherProcessContend)
{
    constexpr int STEPS = 600;
    const std::size_t before = descriptorCount();
    m_peer.tell("rival 0 300");
    {
        std::mutex watcherMutex;
        const auto run = [&](unsigned seed) {
            Worker worker(m_file, seed);
            for (int i = 0; i < STEPS; ++i) {
                worker.step();
                if (worker.level() == LockLevel::None)
                    continue;
                // Until the worker's next step, the process keeps at least the worker's level. The
                // rival only asks for Write, so it has no lock meanwhile.
                std::lock_guard guard(watcherMutex);
                const std::string seen = m_watcher.sees();
                if (worker.level() == LockLevel::Write) {
                    EXPECT_EQ("Write", seen);
                } else {
                    EXPECT_NE("None", seen);
                }
            }
        };
        std::thread first([&] { run(3); });
        std::thread second([&] { run(4); });
        run(5);
        first.join();
        second.join();
    }
    EXPECT_EQ("ok", m_peer.answer());
    EXPECT_EQ("None", m_watcher.sees());
    EXPECT_EQ(0u, FileLock::counts().open);
    EXPECT_EQ(0u, FileLock::counts().parked);
    EXPECT_EQ(before, descriptorCount());
}

} // namespace
