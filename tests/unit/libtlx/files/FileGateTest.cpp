// Gates and turns: what the threads of one process do to a file one after the other.

#include <tlx/FileLock.h>

#include <atomic>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "FileLockPeer.h"

using namespace Veltrane::Quillmark::Tlx;

namespace {

class FileGateTest : public testing::Test
{
  protected:
    /// Two threads do the work, each with its own holder of the file.
    void inTwoThreads(const std::function<void(const FileLock&)>& work) const
    {
        const auto one = m_file.open();
        const auto two = m_file.open();
        std::thread thread([&] { work(*two); });
        work(*one);
        thread.join();
    }

    QmTest::LockedFile m_file;
};

TEST_F(FileGateTest, aGateNestsAndKeepsAnotherHoldersThreadOut)
{
    int value = 0;
    inTwoThreads([&value](const FileLock& lock) {
        for (int i = 0; i < 2000; ++i) {
            const FileGate outer(lock);
            const FileGate inner(lock);
            ++value;
        }
    });
    EXPECT_EQ(4000, value);
}

TEST_F(FileGateTest, gatesOfTwoFilesAreTwo)
{
    const auto one = m_file.open();
    const auto two = FileLock::open(m_file.path("other"), O_RDWR | O_CREAT, 0600);
    const FileGate gate(*one);
    bool inside = false;
    std::thread thread([&] {
        const FileGate other(*two);
        inside = true;
    });
    thread.join(); // with a shared gate the thread would not end
    EXPECT_TRUE(inside);
}

TEST_F(FileGateTest, aGateOutlivesItsHolderAndStillExcludes)
{
    auto one = m_file.open();
    auto gate = std::make_unique<FileGate>(*one);
    one.reset();
    const auto two = m_file.open();
    std::atomic<bool> opened{false};
    bool sawItOpened = false;
    std::thread thread([&] {
        const FileGate waits(*two);
        sawItOpened = opened;
    });
    opened = true;
    gate.reset();
    thread.join();
    EXPECT_TRUE(sawItOpened);
}

TEST_F(FileGateTest, twoTurnsNeverOverlapAndATurnNests)
{
    int value = 0;
    std::atomic<int> inside{0};
    inTwoThreads([&](const FileLock& lock) {
        for (int i = 0; i < 2000; ++i) {
            const WriterTurn outer(lock);
            EXPECT_EQ(1, ++inside);
            const WriterTurn inner(lock);
            ++value;
            --inside;
        }
    });
    EXPECT_EQ(4000, value);
}

TEST_F(FileGateTest, twoReplacementsNeverOverlap)
{
    // They go on after the gate, as when a disk syncs.
    std::atomic<int> inside{0};
    int done = 0;
    const auto replaceOften = [&] {
        for (int i = 0; i < 500; ++i) {
            auto file = openLocked(m_file.path(), O_RDWR, 0, LockLevel::Write, LockWait::WAIT);
            ASSERT_TRUE(file);
            { // leaves the gate
                const FileGate gate = std::move(file->gate);
            }
            EXPECT_EQ(1, ++inside);
            std::this_thread::yield();
            ++done;
            --inside;
        }
    };
    std::thread thread(replaceOften);
    replaceOften();
    thread.join();
    EXPECT_EQ(1000, done);
}

TEST_F(FileGateTest, aReaderPassesWhileAWriterHasItsTurn)
{
    const auto writer = m_file.open();
    ASSERT_EQ(0, writer->acquire_write());
    const WriterTurn turn(*writer);
    bool hasRead = false;
    std::thread thread([&] {
        const auto reader = openLocked(m_file.path(), O_RDONLY, 0, LockLevel::Read, LockWait::WAIT);
        hasRead = reader && !reader->turn;
    });
    thread.join(); // it would not end if it waited for the turn
    EXPECT_TRUE(hasRead);
}

TEST_F(FileGateTest, aWriterWaitsForTheTurnButAGateDoesNot)
{
    auto file = openLocked(m_file.path(), O_RDWR, 0, LockLevel::Write, LockWait::WAIT);
    ASSERT_TRUE(file);
    const std::unique_ptr<FileLock> lock = std::move(file->lock);
    std::unique_ptr<WriterTurn> turn = std::move(file->turn);
    file = tl::unexpected(LockFailure{LockFailure::REPLACED, {}}); // leaves the gate
    std::atomic<bool> hasGate{false};
    std::atomic<bool> hasTurn{false};
    std::thread other([&] {
        const auto second = m_file.open();
        {
            const FileGate gate(*second);
            hasGate = true;
        }
        const WriterTurn next(*second);
        hasTurn = true;
    });
    EXPECT_TRUE(QmTest::eventually([&] { return hasGate.load(); }));
    EXPECT_FALSE(hasTurn);
    turn.reset();
    other.join();
    EXPECT_TRUE(hasTurn);
}

TEST_F(FileGateTest, turnsOfTwoFilesAreTwo)
{
    const auto one = m_file.open();
    const auto two = FileLock::open(m_file.path("other"), O_RDWR | O_CREAT, 0600);
    const WriterTurn turn(*one);
    bool inside = false;
    std::thread thread([&] {
        const WriterTurn other(*two);
        inside = true;
    });
    thread.join(); // with a shared turn the thread would not end
    EXPECT_TRUE(inside);
}

} // namespace
