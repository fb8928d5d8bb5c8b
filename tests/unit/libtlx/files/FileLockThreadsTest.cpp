// Locks that wait for other threads and for other processes.

#include <tlx/FileLock.h>
#include <tlx/StopNotice.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <cerrno>
#include <future>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <sys/mman.h>

#include <gtest/gtest.h>

#include "FileLockPeer.h"
#include "support/ChildProcess.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::descriptorCount;
using QmTest::eventually;
using QmTest::isBlocked;
using QmTest::PATIENCE;
using QmTest::PeerKind;
using std::chrono::milliseconds;

namespace {

class FileLockThreadsTest : public testing::Test
{
  protected:
    explicit FileLockThreadsTest(PeerKind kind = PeerKind::FILE_LOCK) : m_peer(kind)
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
    static int outcome(int answer) { return answer == 0 ? 0 : errno; }
    /// Begins the operation. Returns when it waits for another process.
    static std::future<int> beginAndWait(FileLock& lock, int (FileLock::*operation)())
    {
        const std::size_t before = FileLock::counts().waiting;
        auto future = begin(lock, operation);
        EXPECT_TRUE(eventually([&] { return FileLock::counts().waiting == before + 1; }));
        return future;
    }
    /// Sets the limit of this process and the peer.
    void limitBoth(milliseconds limit)
    {
        FileLock::setWaitLimit(limit);
        EXPECT_EQ("ok", m_peer.ask("limit " + std::to_string(limit.count())));
    }
    /// Two holders of each process have Read.
    void keepReadInBothProcesses(FileLock& first, FileLock& second)
    {
        EXPECT_EQ(0, first.acquire_read());
        EXPECT_EQ(0, second.acquire_read());
        m_peer.open(1, m_file.path());
        EXPECT_EQ("ok", m_peer.ask("read 0"));
        EXPECT_EQ("ok", m_peer.ask("read 1"));
    }

    QmTest::LockedFile m_file;
    // The first members, because a process must fork before it has threads.
    QmTest::Peer m_peer;
    QmTest::Peer m_watcher;
};

/// Tests that run with both kinds of peers.
class FileLockPeersTest : public FileLockThreadsTest, public testing::WithParamInterface<PeerKind>
{
  protected:
    FileLockPeersTest() : FileLockThreadsTest(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(Peers, FileLockPeersTest,
                         testing::Values(PeerKind::FILE_LOCK, PeerKind::CLASSIC),
                         testing::PrintToStringParamName());

TEST_P(FileLockPeersTest, aWaitingLockWaitsForAnotherProcess)
{
    const auto lock = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("write 0"));
    auto reading = beginAndWait(*lock, &FileLock::acquire_read);
    EXPECT_EQ("Write", m_watcher.sees());
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(reading));
    EXPECT_EQ(LockLevel::Read, lock->level());
    EXPECT_EQ("Read", m_watcher.sees());

    ASSERT_EQ("ok", m_peer.ask("read 0"));
    auto writing = beginAndWait(*lock, &FileLock::acquire_write);
    ASSERT_EQ("ok", m_peer.ask("close 0"));
    EXPECT_EQ(0, outcome(writing));
    EXPECT_EQ(LockLevel::Write, lock->level());
    EXPECT_EQ("Write", m_watcher.sees());
    EXPECT_EQ(0u, FileLock::counts().waiting);
    EXPECT_EQ(0u, m_file.waitsGivenUp());
}

TEST_P(FileLockPeersTest, anotherProcessWaitsForOurLock)
{
    const auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_read());
    ASSERT_EQ("waits", m_peer.ask("begin 0 write"));
    EXPECT_EQ("Read", m_watcher.sees());
    EXPECT_EQ(0, lock->release());
    EXPECT_EQ("ok", m_peer.ask("await 0"));
    EXPECT_EQ("Write", m_watcher.sees());
    EXPECT_EQ(EBUSY, outcome(lock->tryacquire_read()));
}

TEST_P(FileLockPeersTest, readsAreGrantedWhileAnotherThreadWaitsForWrite)
{
    auto reader = m_file.open(O_RDONLY);
    auto writer = m_file.open();
    auto lookup = m_file.open(O_RDONLY);
    auto trying = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    ASSERT_EQ(0, reader->acquire_read());
    auto writing = beginAndWait(*writer, &FileLock::acquire_write);

    // These two get Read at once, although the writer still waits for the peer.
    EXPECT_EQ(0, lookup->acquire_read());
    EXPECT_EQ(0, trying->tryacquire_read());
    EXPECT_EQ(EBUSY, outcome(trying->tryacquire_write_upgrade()));
    EXPECT_EQ(LockLevel::Read, trying->level());
    EXPECT_EQ(0, trying->release());

    // Now only the waiting writer is left. It is enough to make the try fail.
    EXPECT_EQ(0, lookup->release());
    EXPECT_EQ(0, reader->release());
    EXPECT_EQ(EBUSY, outcome(trying->tryacquire_write()));
    EXPECT_EQ("Read", m_watcher.sees());

    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(writing));
    EXPECT_EQ("Write", m_watcher.sees());
    writer.reset();
    EXPECT_EQ("None", m_watcher.sees());
}

TEST_P(FileLockPeersTest, aWaitingWriterLeavesTheKernelToReaders)
{
    auto writer = m_file.open();
    auto reader = m_file.open(O_RDONLY);
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    auto writing = beginAndWait(*writer, &FileLock::acquire_write);
    EXPECT_EQ(0, reader->tryacquire_read());
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(writing)) << "a reader of this process is no obstacle";
    EXPECT_EQ("Write", m_watcher.sees());
    writer.reset();
    EXPECT_EQ("Read", m_watcher.sees());
}

TEST_P(FileLockPeersTest, aLockThatTheProcessGetsIsEnoughForAllThatWait)
{
    const auto first = m_file.open();
    const auto second = m_file.open();
    const auto third = m_file.open(O_RDONLY);
    ASSERT_EQ("ok", m_peer.ask("write 0"));
    auto one = beginAndWait(*first, &FileLock::acquire_write);
    auto two = beginAndWait(*second, &FileLock::acquire_write);
    auto three = beginAndWait(*third, &FileLock::acquire_read);
    EXPECT_EQ(3u, FileLock::counts().waiting);
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(one));
    EXPECT_EQ(0, outcome(two));
    EXPECT_EQ(0, outcome(three));
    EXPECT_EQ(0u, FileLock::counts().waiting);
    EXPECT_EQ(0, first->release());
    EXPECT_EQ(0, second->release());
    EXPECT_EQ("Read", m_watcher.sees());
}

TEST_P(FileLockPeersTest, aCloseDuringAWaitLeavesTheWaitingLock)
{
    const std::size_t before = descriptorCount();
    auto reader = m_file.open(O_RDONLY);
    auto writer = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    ASSERT_EQ(0, reader->acquire_read());
    auto writing = beginAndWait(*writer, &FileLock::acquire_write);
    reader.reset();
    m_file.open().reset();
    EXPECT_EQ(1u, FileLock::counts().holders);
    EXPECT_EQ(before + 1, descriptorCount());
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(writing));
    EXPECT_EQ("Write", m_watcher.sees());
    EXPECT_EQ(0, writer->release());
    EXPECT_EQ("None", m_watcher.sees());
    writer.reset();
    EXPECT_EQ(before, descriptorCount());
}

TEST_P(FileLockPeersTest, twoThreadsThatWaitCrosswiseWithAnotherProcessBothGetTheirs)
{
    // The peer waits for a file that one thread holds and will release. Another thread waits for a
    // file that the peer holds.
    const std::string otherPath = m_file.path("other");
    auto other = FileLock::open(otherPath, O_RDWR | O_CREAT, 0600);
    const auto lock = m_file.open();
    ASSERT_EQ(0, other->acquire_write());
    m_peer.open(1, otherPath);
    ASSERT_EQ("ok", m_peer.ask("write 0"));
    ASSERT_EQ("waits", m_peer.ask("begin 1 write"));
    auto writing = beginAndWait(*lock, &FileLock::acquire_write);
    EXPECT_EQ(0, other->release());
    EXPECT_EQ("ok", m_peer.ask("await 1"));
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(writing));
}

TEST_F(FileLockThreadsTest, twoProcessesThatUpgradeDoNotWaitForEachOther)
{
    const auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_read());
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    ASSERT_EQ("waits", m_peer.ask("begin 0 write"));
    // The peer gave up its Read before it waited, so this process goes on.
    EXPECT_EQ(0, lock->acquire_write());
    EXPECT_EQ("Write", m_watcher.sees());
    EXPECT_EQ(0, lock->release());
    EXPECT_EQ("ok", m_peer.ask("await 0"));
    EXPECT_EQ("Write", m_watcher.sees());
}

TEST_F(FileLockThreadsTest, readsThatBothProcessesKeepEndBothUpgradesAtTheLimit)
{
    // In both processes another holder keeps Read, so neither process can give it up.
    constexpr milliseconds LIMIT{300};
    limitBoth(LIMIT);
    auto upgrading = m_file.open();
    auto keeping = m_file.open(O_RDONLY);
    keepReadInBothProcesses(*upgrading, *keeping);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ("waits", m_peer.ask("begin 0 write"));
    EXPECT_EQ(ETIMEDOUT, outcome(upgrading->acquire_write()));
    EXPECT_EQ("ETIMEDOUT", m_peer.ask("await 0"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, LIMIT + std::chrono::seconds(10));
    EXPECT_EQ(1u, m_file.waitsGivenUp());
    EXPECT_EQ("1", m_peer.ask("waitsgivenup"));
    // All four still have Read.
    EXPECT_EQ(LockLevel::Read, upgrading->level());
    EXPECT_EQ(0, keeping->release());
    EXPECT_EQ("Read", m_peer.sees());
    EXPECT_EQ("ok", m_peer.ask("release 1"));
    EXPECT_EQ(EBUSY, outcome(upgrading->tryacquire_write_upgrade()));
    EXPECT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, upgrading->tryacquire_write_upgrade());
}

TEST_F(FileLockThreadsTest, anUpgradeGoesOnWhenTheOtherHolderReleases)
{
    // As above, but the other holder of this process releases during the wait.
    auto upgrading = m_file.open();
    auto keeping = m_file.open(O_RDONLY);
    keepReadInBothProcesses(*upgrading, *keeping);
    ASSERT_EQ("waits", m_peer.ask("begin 0 write"));
    auto writing = beginAndWait(*upgrading, &FileLock::acquire_write);
    EXPECT_EQ(0, keeping->release());
    // Now this process waits without a Read, and the peer gets the lock.
    EXPECT_EQ("ok", m_peer.ask("await 0"));
    EXPECT_EQ("Write", m_watcher.sees());
    ASSERT_EQ("ok", m_peer.ask("close 1"));
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(writing));
    EXPECT_EQ("Write", m_watcher.sees());
}

TEST_P(FileLockPeersTest, aWaitEndsAtItsLimitAndTheHolderHasItsLevelAgain)
{
    // The slack covers a busy machine.
    constexpr std::chrono::seconds SLACK{10};
    const auto lock = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    unsigned long long givenUp = 0;
    for (const LockLevel before : {LockLevel::None, LockLevel::Read}) {
        ASSERT_EQ(0, before == LockLevel::Read ? lock->acquire_read() : lock->release());
        for (const milliseconds limit : {milliseconds(0), milliseconds(1), milliseconds(150)}) {
            FileLock::setWaitLimit(limit);
            EXPECT_EQ(limit, FileLock::waitLimit());
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(ETIMEDOUT, outcome(lock->acquire_write()));
            const auto took = std::chrono::steady_clock::now() - start;
            EXPECT_GE(took, limit);
            EXPECT_LT(took, limit + SLACK);
            EXPECT_EQ(before, lock->level());
            EXPECT_EQ(++givenUp, m_file.waitsGivenUp());
            EXPECT_EQ(0u, FileLock::counts().waiting);
        }
    }
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ("Read", m_peer.sees());
}

TEST_P(FileLockPeersTest, aStopEndsTheWaitsForOthers)
{
    // The limit is far beyond the slack, which covers a busy machine.
    constexpr std::chrono::seconds LIMIT{300};
    constexpr std::chrono::seconds SLACK{10};
    FileLock::setWaitLimit(LIMIT);
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    const auto lock = m_file.open();
    auto writing = std::async(std::launch::async, [&] {
        const auto turn = WriterTurn::take(*lock, std::chrono::steady_clock::now() + LIMIT);
        return lock->acquire_write() == 0 ? 0 : errno;
    });
    EXPECT_TRUE(QmTest::eventually([] { return FileLock::counts().waiting == 1; }));
    auto turn = std::async(std::launch::async, [&] {
        return WriterTurn::take(*lock, std::chrono::steady_clock::now() + LIMIT) != nullptr;
    });
    const auto start = std::chrono::steady_clock::now();
    announceStop();
    EXPECT_EQ(ETIMEDOUT, writing.get());
    (void)turn.get(); // the first thread may give its turn back before this one looks
    EXPECT_LT(std::chrono::steady_clock::now() - start, SLACK);
    withdrawStop();
}

TEST_P(FileLockPeersTest, aLimitOfNothingStillTries)
{
    FileLock::setWaitLimit(milliseconds(0));
    const auto lock = m_file.open();
    EXPECT_EQ(0, lock->acquire_read());
    EXPECT_EQ(0, lock->acquire_write());
    EXPECT_EQ("Write", m_peer.sees());
    EXPECT_EQ(0u, m_file.waitsGivenUp());
}

TEST_P(FileLockPeersTest, aLongLimitLastsUntilThePeerReleases)
{
    FileLock::setWaitLimit(std::chrono::hours(1));
    const auto lock = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("write 0"));
    auto writing = beginAndWait(*lock, &FileLock::acquire_write);
    // A wait keeps the limit that it began with.
    FileLock::setWaitLimit(milliseconds(0));
    EXPECT_EQ(std::future_status::timeout, writing.wait_for(milliseconds(100)));
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, outcome(writing));
    EXPECT_EQ(0u, m_file.waitsGivenUp());
}

TEST_P(FileLockPeersTest, aWaitThatAKillEndsGoesOn)
{
    const auto lock = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("write 0"));
    auto writing = beginAndWait(*lock, &FileLock::acquire_write);
    m_peer.kill();
    EXPECT_EQ(0, outcome(writing));
}

TEST_F(FileLockThreadsTest, aHolderMayLoseTheReadThatItGaveUpToAWriter)
{
    FileLock::setWaitLimit(std::chrono::seconds(2));
    const auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_read());
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    auto writing = beginAndWait(*lock, &FileLock::acquire_write);
    ASSERT_EQ("ok", m_peer.ask("write 0")); // it gets what this holder has given up
    EXPECT_EQ(ETIMEDOUT, outcome(writing));
    EXPECT_EQ(LockLevel::None, lock->level());
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, lock->acquire_read());
}

TEST_F(FileLockThreadsTest, threadsThatAlwaysOverlapLetAnotherProcessGoFirst)
{
    // A thread keeps its lock until another thread has it too, and will keep it. Without another
    // thread it gives up after a moment. If no thread gave way, the process would never release its
    // lock.
    std::atomic<bool> ends{false};
    std::atomic<int> inside{0};
    std::atomic<int> failures{0};
    const auto run = [&] {
        while (!ends) {
            const auto lock = m_file.open();
            if (lock->acquire_write() != 0)
                ++failures;
            ++inside;
            const auto leaves = std::chrono::steady_clock::now() + milliseconds(60);
            for (int count = inside;; count = inside) {
                const bool mayLeave = count > 1 || std::chrono::steady_clock::now() > leaves;
                if (mayLeave && inside.compare_exchange_strong(count, count - 1))
                    break;
                std::this_thread::yield();
            }
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(run);
    EXPECT_TRUE(eventually([&] { return inside > 1; }));
    // Now and then no thread joins in time. So only many waits in a row show that threads give way.
    EXPECT_EQ("ok", m_peer.ask("limit 5000"));
    std::string answer = "ok";
    for (int i = 0; i < 20 && answer == "ok"; ++i) {
        answer = m_peer.ask("write 0");
        EXPECT_EQ("ok", answer) << i;
        EXPECT_EQ("ok", m_peer.ask("release 0"));
    }
    ends = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, failures);
}

TEST_F(FileLockThreadsTest, aHolderJoinsItsOwnLockAlthoughAnotherProcessWaits)
{
    const auto kept = m_file.open();
    ASSERT_EQ(0, kept->acquire_write());
    ASSERT_EQ("waits", m_peer.ask("begin 0 write"));
    const auto start = std::chrono::steady_clock::now();
    const auto second = m_file.open();
    EXPECT_EQ(0, second->acquire_write());
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(100)) << "it gives way";
    // It has given way. The next one does not pause so soon again.
    const auto third = m_file.open();
    EXPECT_EQ(0, third->acquire_read());
    EXPECT_EQ(0, second->release());
    EXPECT_EQ(0, third->release());
    EXPECT_EQ(0, kept->release());
    EXPECT_EQ("ok", m_peer.ask("await 0"));
}

TEST_F(FileLockThreadsTest, aHolderThatIsLeftOpenKeepsNoDescriptorOfTheOthers)
{
    const auto left = m_file.open(O_RDONLY);
    ASSERT_EQ(0, left->acquire_read());
    const std::size_t before = descriptorCount();
    for (int i = 0; i < 20000; ++i) {
        const auto other = m_file.open();
        ASSERT_EQ(0, other->acquire_read());
        if (i % 1000 == 0) {
            ASSERT_EQ(before, descriptorCount()) << i;
        }
    }
    EXPECT_EQ(before, descriptorCount());
    EXPECT_EQ("Read", m_watcher.sees());
}

TEST_F(FileLockThreadsTest, holdersThatAlwaysOverlapKeepNoDescriptor)
{
    constexpr std::size_t THREADS = 16;
    constexpr int ROUNDS = 20000;
    const std::size_t before = descriptorCount();
    std::atomic<int> rounds{0};
    std::atomic<std::size_t> most{0};
    const auto run = [&](bool measures) {
        std::unique_ptr<FileLock> held;
        while (rounds++ < ROUNDS) {
            auto next = m_file.open();
            ASSERT_TRUE(next);
            ASSERT_EQ(0, next->acquire_read());
            held = std::move(next); // the earlier holder ends while this one has the lock
            if (measures)
                most = std::max(most.load(), descriptorCount());
        }
    };
    std::vector<std::thread> threads;
    for (std::size_t i = 1; i < THREADS; ++i)
        threads.emplace_back(run, false);
    run(true);
    for (std::thread& thread : threads)
        thread.join();
    // The shared descriptor, and one that each thread has just opened.
    EXPECT_LE(most, before + 1 + THREADS);
    EXPECT_GT(most, before);
    EXPECT_EQ(before, descriptorCount());
    EXPECT_EQ("None", m_watcher.sees());
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
            EXPECT_EQ(2u, FileLock::counts().holders);
            EXPECT_EQ(before + 1, descriptorCount());
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
    EXPECT_EQ(0u, FileLock::counts().holders);
    EXPECT_EQ(0u, FileLock::counts().files);
    EXPECT_EQ(before, descriptorCount());
}

/// What the holders of several processes have, in shared memory. A process notes a level after it
/// got it, and takes the note back before it changes the level.
struct SharedLevels
{
    static constexpr int PROCESSES = 4;
    std::array<std::atomic<int>, PROCESSES> readers;
    std::array<std::atomic<int>, PROCESSES> writers;

    void note(int process, LockLevel level, int change)
    {
        if (level == LockLevel::Read)
            readers[static_cast<std::size_t>(process)] += change;
        if (level == LockLevel::Write)
            writers[static_cast<std::size_t>(process)] += change;
    }
    /// Whether other processes have no lock that conflicts with this level.
    bool allows(int process, LockLevel level) const
    {
        for (int other = 0; other < PROCESSES; ++other) {
            const auto index = static_cast<std::size_t>(other);
            if (other == process || level == LockLevel::None)
                continue;
            if (writers[index] > 0 || (level == LockLevel::Write && readers[index] > 0))
                return false;
        }
        return true;
    }
};

/// Runs threads with random operations. Returns 0, or the number of the check that failed.
int contend(const QmTest::LockedFile& file, SharedLevels& levels, int process)
{
    constexpr int THREADS = 8;
    constexpr int STEPS = 400;
    FileLock::setWaitLimit(milliseconds(50)); // so that some waits end
    const std::size_t before = descriptorCount();
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i)
        threads.emplace_back([&, i] {
            Worker worker(file, static_cast<unsigned>(1 + process * THREADS + i));
            for (int step = 0; step < STEPS; ++step) {
                levels.note(process, worker.level(), -1);
                worker.step();
                levels.note(process, worker.level(), 1);
                if (!levels.allows(process, worker.level()))
                    failed = 1;
            }
            levels.note(process, worker.level(), -1);
        });
    for (std::thread& thread : threads)
        thread.join();
    if (FileLock::counts().holders + FileLock::counts().files + FileLock::counts().waiting != 0)
        failed = 2;
    if (descriptorCount() != before)
        failed = 3;
    return failed;
}

TEST_F(FileLockThreadsTest, noHolderLosesItsLevelWhileFourProcessesContend)
{
    void* const memory = ::mmap(nullptr, sizeof(SharedLevels), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, memory);
    auto& levels = *new (memory) SharedLevels{};
    {
        std::vector<std::unique_ptr<QmTest::ChildProcess>> others;
        for (int process = 1; process < SharedLevels::PROCESSES; ++process)
            others.push_back(std::make_unique<QmTest::ChildProcess>(
                [&, process] { return contend(m_file, levels, process); }));
        EXPECT_EQ(0, contend(m_file, levels, 0));
        for (const auto& other : others)
            EXPECT_EQ(0, other->exitCode());
    }
    EXPECT_EQ("None", m_watcher.sees());
    ::munmap(memory, sizeof(SharedLevels));
}

} // namespace
