// File locks when system calls fail: a clear error, and no descriptor and no lock left.

#include <tlx/FileLock.h>

#include <cerrno>
#include <future>

#include <gtest/gtest.h>

#include "FileLockPeer.h"
#include "support/Capture.h"
#include "support/ScriptedFileSystem.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::descriptorCount;
using QmTest::Lines;

namespace {

class FileLockFaultsTest : public testing::Test
{
  protected:
    FileLockFaultsTest() { m_peer.open(0, m_file.path()); }

    static int outcome(int answer) { return answer == 0 ? 0 : errno; }
    auto openForWriting(LockWait wait = LockWait::WAIT) const
    {
        return openLocked(m_file.path(), O_RDWR, 0, LockLevel::Write, wait);
    }
    void expectNothingLeft(std::size_t descriptorsBefore)
    {
        EXPECT_EQ(descriptorsBefore, descriptorCount());
        EXPECT_EQ(0u, FileLock::counts().holders);
        EXPECT_EQ(0u, FileLock::counts().files);
        EXPECT_EQ(0u, FileLock::counts().waiting);
        EXPECT_EQ("None", m_peer.sees());
    }

    QmTest::LockedFile m_file;
    QmTest::Peer m_peer;
    QmTest::ScriptedFileSystem m_system;
};

TEST_F(FileLockFaultsTest, withoutAFreeDescriptorNothingIsOpened)
{
    const std::size_t before = descriptorCount();
    for (const int error : {EMFILE, ENFILE, ENOMEM, EIO}) {
        m_system.clear();
        m_system.fail("open", error);
        EXPECT_FALSE(m_file.open(O_RDONLY));
        EXPECT_EQ(error, errno);
        // A second try, for reading only, could leave its descriptor to later writers.
        EXPECT_EQ(1, m_system.count("open"));
        m_system.fail("open", error);
        const auto file = openForWriting();
        ASSERT_FALSE(file);
        EXPECT_EQ(LockFailure::OPENING, file.error().step);
        EXPECT_EQ(error, file.error().error.value());
        EXPECT_FALSE(file.error().file);
    }
    expectNothingLeft(before);
}

TEST_F(FileLockFaultsTest, whereWritingIsForbiddenAReaderOpensForReading)
{
    for (const int error : {EACCES, EPERM, EROFS, ETXTBSY}) {
        m_system.fail("open", error);
        auto reader = m_file.open(O_RDONLY);
        ASSERT_TRUE(reader) << error;
        EXPECT_EQ(0, reader->acquire_read());
        EXPECT_EQ("Read", m_peer.sees());
        EXPECT_EQ(O_RDONLY, ::fcntl(reader->get_handle(), F_GETFL) & O_ACCMODE);
        // As long as that descriptor is shared, nobody can lock for writing.
        const auto writer = m_file.open();
        ASSERT_TRUE(writer);
        EXPECT_EQ(EBADF, outcome(writer->acquire_write()));
        EXPECT_EQ(LockLevel::None, writer->level());
    }
    const auto writer = m_file.open();
    EXPECT_EQ(0, writer->acquire_write());
    m_system.fail("open", EROFS);
    EXPECT_FALSE(m_file.open());
    EXPECT_EQ(EROFS, errno);
}

TEST_F(FileLockFaultsTest, aFileThatCannotBeExaminedIsClosed)
{
    const std::size_t before = descriptorCount();
    m_system.fail("fstat", EIO);
    EXPECT_FALSE(m_file.open());
    EXPECT_EQ(EIO, errno);
    m_system.fail("fstat", EIO);
    const auto file = openForWriting();
    ASSERT_FALSE(file);
    EXPECT_EQ(LockFailure::OPENING, file.error().step);
    EXPECT_EQ(EIO, file.error().error.value());
    expectNothingLeft(before);
}

TEST_F(FileLockFaultsTest, interruptedCallsAreRepeated)
{
    m_system.fail("open", EINTR, 3);
    m_system.fail("fstat", EINTR, 3);
    m_system.fail("fstatat", EINTR, 3);
    m_system.fail("lock", EINTR, 3);
    EXPECT_TRUE(openForWriting());
    for (const char* operation : {"open", "fstat", "fstatat", "lock"})
        EXPECT_EQ(0, m_system.left(operation)) << operation;
}

TEST_F(FileLockFaultsTest, aLockThatTheSystemRefusesHasTheReason)
{
    const std::size_t before = descriptorCount();
    for (const int error : {ENOLCK, EIO, EINVAL}) {
        {
            const auto lock = m_file.open();
            ASSERT_EQ(0, lock->acquire_read());
            for (const auto operation : {&FileLock::acquire_write, &FileLock::tryacquire_write,
                                         &FileLock::tryacquire_write_upgrade}) {
                m_system.fail("lock", error);
                EXPECT_EQ(error, outcome(((*lock).*operation)()));
                EXPECT_EQ(LockLevel::Read, lock->level());
                EXPECT_EQ("Read", m_peer.sees());
            }
        }
        m_system.fail("lock", error);
        auto file = openForWriting();
        ASSERT_FALSE(file);
        EXPECT_EQ(LockFailure::LOCKING, file.error().step);
        EXPECT_EQ(error, file.error().error.value());
        ASSERT_TRUE(file.error().file);
        EXPECT_EQ(LockLevel::None, file.error().file->level());
        file = tl::unexpected(LockFailure{LockFailure::OPENING, {}});
        expectNothingLeft(before);
    }
    EXPECT_EQ(0u, m_file.waitsGivenUp());
}

TEST_F(FileLockFaultsTest, anErrorDuringAWaitEndsItAndTheReadIsBack)
{
    const auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_read());
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    // The first try, the release of Read, the sign for other processes and a second try come before
    // the error.
    m_system.fail("lock", EIO, 1, 4);
    EXPECT_EQ(EIO, outcome(lock->acquire_write()));
    EXPECT_EQ(0, m_system.left("lock"));
    EXPECT_EQ(LockLevel::Read, lock->level());
    EXPECT_EQ("Read", m_peer.sees());
    EXPECT_EQ(0u, FileLock::counts().waiting);
    EXPECT_EQ(0u, m_file.waitsGivenUp());
}

TEST_F(FileLockFaultsTest, aWaitNeedsNoSignForOtherProcesses)
{
    const auto lock = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    m_system.fail("getlock", EIO);
    m_system.fail("lock", EIO, 1, 1); // the sign, after the first try
    auto writing = std::async(std::launch::async, [&] { return outcome(lock->acquire_write()); });
    EXPECT_TRUE(QmTest::eventually([&] { return m_system.left("lock") == 0; }));
    EXPECT_EQ(0, m_system.left("getlock"));
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, writing.get());
    EXPECT_EQ("Write", m_peer.sees());
}

TEST_F(FileLockFaultsTest, aLockThatCannotBeReleasedEndsWithTheDescriptor)
{
    const QmTest::LogCapture log;
    auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_write());
    m_system.fail("lock", EIO);
    EXPECT_EQ(0, lock->release());
    EXPECT_EQ(LockLevel::None, lock->level());
    EXPECT_EQ("Write", m_peer.sees());
    EXPECT_EQ(Lines{"Cannot lower the lock on a file: EIO, Input/output error"}, log.texts(1));
    // The next change of the level tries again.
    ASSERT_EQ(0, lock->acquire_read());
    EXPECT_EQ(0, lock->release());
    EXPECT_EQ("None", m_peer.sees());
    ASSERT_EQ(0, lock->acquire_write());
    m_system.fail("lock", EIO);
    lock.reset();
    EXPECT_EQ("None", m_peer.sees());
}

TEST_F(FileLockFaultsTest, aPathThatCannotBeExaminedIsNotReplaced)
{
    const std::size_t before = descriptorCount();
    for (const int error : {EIO, EACCES, ENOMEM}) {
        m_system.clear();
        m_system.fail("fstatat", error);
        const auto file = openForWriting();
        ASSERT_FALSE(file);
        EXPECT_EQ(LockFailure::OPENING, file.error().step);
        EXPECT_EQ(error, file.error().error.value());
        EXPECT_FALSE(file.error().file);
        EXPECT_EQ(1, m_system.count("fstatat"));
        expectNothingLeft(before);
    }
    const auto lock = m_file.open();
    m_system.fail("fstatat", EIO);
    EXPECT_FALSE(lock->isStillAt(m_file.path()));
    EXPECT_TRUE(lock->isStillAt(m_file.path()));
}

TEST_F(FileLockFaultsTest, aMissingPathIsTriedAgain)
{
    for (const int error : {ENOENT, ENOTDIR}) {
        m_system.fail("fstatat", error, LOCK_MAX_ATTEMPTS - 1);
        EXPECT_TRUE(openForWriting());
        m_system.fail("fstatat", error, LOCK_MAX_ATTEMPTS);
        const auto file = openForWriting();
        ASSERT_FALSE(file);
        EXPECT_EQ(LockFailure::REPLACED, file.error().step);
    }
}

} // namespace
