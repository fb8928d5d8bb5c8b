// A forked child has no lock of its parent, and does not change the parent's locks.

#include <tlx/FileLock.h>

#include <cerrno>
#include <functional>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "FileLockPeer.h"
#include "support/ChildProcess.h"

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
                  CHILD_CHECK(FileLock::counts().open == 0);
                  return 0;
              }));
    EXPECT_EQ("Write", m_peer.sees());
    EXPECT_EQ(LockLevel::Write, lock->level());
}

TEST_F(FileLockForkTest, aChildMayCloseInheritedLocks)
{
    auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_write());
    EXPECT_EQ(0, inChild([&] {
                  const std::size_t before = QmTest::descriptorCount();
                  lock.reset();
                  CHILD_CHECK(QmTest::descriptorCount() == before - 1);
                  CHILD_CHECK(FileLock::counts().parked == 0);
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
                  CHILD_CHECK(FileLock::counts().open == 1);
                  return 0;
              }));
    EXPECT_EQ(0, lock->release());
    EXPECT_EQ(0, inChild([&] {
                  auto own = m_file.open();
                  CHILD_CHECK(own->tryacquire_write() == 0);
                  CHILD_CHECK(m_peer.sees() == "Write");
                  // Closing the inherited descriptor would drop the child's own lock.
                  lock.reset();
                  CHILD_CHECK(m_peer.sees() == "Write");
                  CHILD_CHECK(FileLock::counts().parked == 1);
                  CHILD_CHECK(own->release() == 0);
                  CHILD_CHECK(FileLock::counts().parked == 0);
                  return 0;
              }));
    EXPECT_EQ("None", m_peer.sees());
    EXPECT_EQ(0, lock->acquire_write());
}

TEST_F(FileLockForkTest, aChildDoesNotHangOnWhatThreadsOfItsParentHeld)
{
    auto gated = m_file.open();
    auto waiting = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    // In the parent, one thread has the gate and another waits in the kernel.
    std::promise<void> inGate;
    std::promise<void> leaveGate;
    std::thread holder([&] {
        const FileGate gate(*gated);
        inGate.set_value();
        leaveGate.get_future().wait_for(QmTest::PATIENCE);
    });
    inGate.get_future().wait();
    int answer = -1;
    std::thread waiter([&] { answer = waiting->acquire_write(); });
    ASSERT_TRUE(eventually([&] { return QmTest::isBlocked(::getpid(), m_file.path()); }));

    EXPECT_EQ(0, inChild([&] {
                  const FileGate gate(*gated);
                  auto own = m_file.open();
                  const FileGate ownGate(*own);
                  CHILD_CHECK(own->tryacquire_read() == 0);
                  waiting.reset();
                  gated.reset();
                  CHILD_CHECK(own->release() == 0);
                  own.reset();
                  CHILD_CHECK(FileLock::counts().open == 0 && FileLock::counts().parked == 0);
                  return 0;
              }));
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    waiter.join();
    leaveGate.set_value();
    holder.join();
    EXPECT_EQ(0, answer);
    EXPECT_EQ("Write", m_peer.sees());
}

} // namespace
