// Many holders in one thread: their levels, and the lock that another process sees.

#include <tlx/FileLock.h>

#include <cerrno>
#include <chrono>

#include <gtest/gtest.h>

#include "FileLockPeer.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::descriptorCount;

namespace {

/// Every test runs with both kinds of peers.
class FileLockTest : public testing::TestWithParam<QmTest::PeerKind>
{
  protected:
    FileLockTest() { m_peer.open(0, m_file.path()); }

    void expectCounts(std::size_t holders, std::size_t files) const
    {
        const FileLock::Counts counts = FileLock::counts();
        EXPECT_EQ(holders, counts.holders);
        EXPECT_EQ(files, counts.files);
        EXPECT_EQ(0u, counts.waiting);
        EXPECT_EQ(0u, m_file.waitsGivenUp());
    }

    QmTest::LockedFile m_file;
    QmTest::Peer m_peer{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Peers, FileLockTest,
                         testing::Values(QmTest::PeerKind::FILE_LOCK, QmTest::PeerKind::CLASSIC),
                         testing::PrintToStringParamName());

#define EXPECT_REFUSED(error, call)                                                                \
    do {                                                                                           \
        errno = 0;                                                                                 \
        EXPECT_EQ(-1, call);                                                                       \
        EXPECT_EQ(error, errno);                                                                   \
    } while (false)

TEST(FileLockLimit, isTwentySeconds)
{
    EXPECT_EQ(std::chrono::seconds(20), FileLock::waitLimit());
}

TEST_P(FileLockTest, aHolderKnowsItsLevelAndAnotherProcessSeesIt)
{
    const auto lock = m_file.open();
    ASSERT_TRUE(lock);
    EXPECT_GE(lock->get_handle(), 0);
    EXPECT_EQ(LockLevel::None, lock->level());
    EXPECT_EQ("None", m_peer.sees());
    EXPECT_EQ(0, lock->acquire_read());
    EXPECT_EQ(LockLevel::Read, lock->level());
    EXPECT_EQ("Read", m_peer.sees());
    EXPECT_EQ(0, lock->acquire_write());
    EXPECT_EQ(LockLevel::Write, lock->level());
    EXPECT_EQ("Write", m_peer.sees());
    EXPECT_EQ(0, lock->acquire_write());
    EXPECT_EQ(0, lock->tryacquire_write());
    EXPECT_EQ(0, lock->tryacquire_write_upgrade());
    EXPECT_EQ("Write", m_peer.sees());
    EXPECT_EQ(0, lock->release());
    EXPECT_EQ(LockLevel::None, lock->level());
    EXPECT_EQ("None", m_peer.sees());
    EXPECT_EQ(0, lock->release());
}

TEST_P(FileLockTest, readAskedForWhileWritingLowers)
{
    const auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_write());
    EXPECT_EQ(0, lock->acquire_read());
    EXPECT_EQ(LockLevel::Read, lock->level());
    EXPECT_EQ("Read", m_peer.sees());
    ASSERT_EQ(0, lock->tryacquire_write_upgrade());
    EXPECT_EQ(0, lock->tryacquire_read());
    EXPECT_EQ(LockLevel::Read, lock->level());
    EXPECT_EQ("ok", m_peer.ask("tryread 0"));
}

TEST_P(FileLockTest, theFirstOfTwoWritersToFinishDoesNotDropTheOthersHold)
{
    auto first = m_file.open();
    const auto second = m_file.open();
    ASSERT_EQ(0, first->acquire_write());
    ASSERT_EQ(0, second->acquire_write());
    EXPECT_EQ(0, first->release());
    EXPECT_EQ("EBUSY", m_peer.ask("tryread 0"));
    EXPECT_EQ(LockLevel::Write, second->level());
    first.reset();
    EXPECT_EQ("EBUSY", m_peer.ask("tryread 0"));
    EXPECT_EQ(0, second->release());
    EXPECT_EQ("ok", m_peer.ask("trywrite 0"));
}

TEST_P(FileLockTest, aLookupDoesNotDropAnothersReadLock)
{
    const std::size_t before = descriptorCount();
    auto kept = m_file.open(O_RDONLY);
    ASSERT_EQ(0, kept->acquire_read());
    {
        const auto lookup = m_file.open(O_RDONLY);
        ASSERT_EQ(0, lookup->acquire_read());
        expectCounts(2, 1);
        EXPECT_EQ(before + 1, descriptorCount()) << "both holders share a descriptor";
        EXPECT_EQ(kept->get_handle(), lookup->get_handle());
    }
    EXPECT_EQ("Read", m_peer.sees());
    EXPECT_EQ("EBUSY", m_peer.ask("trywrite 0"));
    expectCounts(1, 1);
    EXPECT_EQ(0, kept->release());
    EXPECT_EQ("ok", m_peer.ask("trywrite 0"));
    expectCounts(1, 1);
    EXPECT_EQ(before + 1, descriptorCount());
    kept.reset();
    expectCounts(0, 0);
    EXPECT_EQ(before, descriptorCount());
}

TEST_P(FileLockTest, aHolderThatNeverLockedDropsNothing)
{
    const std::size_t before = descriptorCount();
    auto locked = m_file.open();
    ASSERT_EQ(0, locked->acquire_write());
    m_file.open().reset();
    m_file.open(O_RDONLY).reset();
    expectCounts(1, 1);
    EXPECT_EQ("Write", m_peer.sees());
    EXPECT_EQ(0, locked->acquire_read());
    EXPECT_EQ("Read", m_peer.sees());
    EXPECT_EQ(before + 1, descriptorCount());
    locked.reset();
    expectCounts(0, 0);
    EXPECT_EQ("None", m_peer.sees());
    EXPECT_EQ(before, descriptorCount());
}

TEST_P(FileLockTest, aDescriptorOpenedPastTheTableDropsNothing)
{
    // Closing it would drop a lock that belongs to the process (F_SETLK).
    const auto locked = m_file.open();
    ASSERT_EQ(0, locked->acquire_write());
    ::close(::open(m_file.path().c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ("Write", m_peer.sees());
    EXPECT_EQ("EBUSY", m_peer.ask("tryread 0"));
}

TEST_P(FileLockTest, theFirstHolderMayGoBeforeTheOthers)
{
    const std::size_t before = descriptorCount();
    auto first = m_file.open();
    ASSERT_EQ(0, first->acquire_write());
    const int descriptor = first->get_handle();
    const auto second = m_file.open(O_RDONLY);
    ASSERT_EQ(0, second->acquire_read());
    first.reset();
    EXPECT_EQ("Read", m_peer.sees());
    EXPECT_EQ(descriptor, second->get_handle());
    char text[7] = {};
    EXPECT_EQ(sizeof text, readFullAt(descriptor, text, sizeof text, 0));
    EXPECT_EQ("content", std::string(text, sizeof text));
    EXPECT_EQ(before + 1, descriptorCount());
}

TEST_P(FileLockTest, aTryLockSeesOtherHoldersOfThisProcess)
{
    const auto held = m_file.open();
    const auto tried = m_file.open();
    ASSERT_EQ(0, held->acquire_read());
    EXPECT_REFUSED(EBUSY, tried->tryacquire_write());
    EXPECT_EQ(LockLevel::None, tried->level());
    EXPECT_EQ(0, tried->tryacquire_read());
    EXPECT_EQ(0, tried->release());
    ASSERT_EQ(0, held->acquire_write());
    EXPECT_REFUSED(EBUSY, tried->tryacquire_read());
    EXPECT_REFUSED(EBUSY, tried->tryacquire_write());
    EXPECT_EQ(LockLevel::None, tried->level());
    EXPECT_EQ("Write", m_peer.sees());
    ASSERT_EQ(0, held->release());
    EXPECT_EQ(0, tried->tryacquire_write());
    EXPECT_EQ("Write", m_peer.sees());
}

TEST_P(FileLockTest, aTryLockSeesOtherProcesses)
{
    const auto tried = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    EXPECT_REFUSED(EBUSY, tried->tryacquire_write());
    EXPECT_EQ(0, tried->tryacquire_read());
    EXPECT_EQ(0, tried->release());
    ASSERT_EQ("ok", m_peer.ask("write 0"));
    EXPECT_REFUSED(EBUSY, tried->tryacquire_read());
    EXPECT_REFUSED(EBUSY, tried->tryacquire_write());
    EXPECT_EQ(LockLevel::None, tried->level());
    ASSERT_EQ("ok", m_peer.ask("close 0"));
    EXPECT_EQ(0, tried->tryacquire_write());
}

TEST_P(FileLockTest, anUpgradeIsBusyBecauseOfAHolderInThisProcess)
{
    const auto upgrading = m_file.open();
    auto other = m_file.open(O_RDONLY);
    ASSERT_EQ(0, upgrading->acquire_read());
    ASSERT_EQ(0, other->acquire_read());
    EXPECT_REFUSED(EBUSY, upgrading->tryacquire_write_upgrade());
    EXPECT_EQ(LockLevel::Read, upgrading->level());
    EXPECT_EQ("Read", m_peer.sees());
    other.reset();
    EXPECT_EQ(0, upgrading->tryacquire_write_upgrade());
    EXPECT_EQ("Write", m_peer.sees());
}

TEST_P(FileLockTest, anUpgradeIsBusyBecauseOfAnotherProcess)
{
    const auto upgrading = m_file.open();
    ASSERT_EQ(0, upgrading->acquire_read());
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    EXPECT_REFUSED(EBUSY, upgrading->tryacquire_write_upgrade());
    EXPECT_EQ(LockLevel::Read, upgrading->level());
    EXPECT_EQ("EBUSY", m_peer.ask("upgrade 0"));
    EXPECT_EQ("Read", m_peer.sees());
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, upgrading->tryacquire_write_upgrade());
    EXPECT_EQ("Write", m_peer.sees());
}

TEST_P(FileLockTest, anUpgradeAfterAReleaseIsATryForWrite)
{
    const auto lock = m_file.open();
    ASSERT_EQ("ok", m_peer.ask("read 0"));
    EXPECT_REFUSED(EBUSY, lock->tryacquire_write_upgrade());
    EXPECT_EQ(LockLevel::None, lock->level());
    ASSERT_EQ("ok", m_peer.ask("release 0"));
    EXPECT_EQ(0, lock->tryacquire_write_upgrade());
    EXPECT_EQ("Write", m_peer.sees());
}

TEST_P(FileLockTest, waitingLocksAreGrantedAtOnceInsideTheProcess)
{
    const auto writer = m_file.open();
    const auto reader = m_file.open(O_RDONLY);
    const auto second = m_file.open();
    ASSERT_EQ(0, writer->acquire_write());
    EXPECT_EQ(0, reader->acquire_read());
    EXPECT_EQ(0, second->acquire_write());
    EXPECT_EQ("Write", m_peer.sees());
    // The writers release their locks, and the reader keeps its lock.
    EXPECT_EQ(0, second->release());
    EXPECT_EQ("Write", m_peer.sees());
    EXPECT_EQ(0, writer->release());
    EXPECT_EQ("Read", m_peer.sees());
    // Raise Read to Write while another holder has Read.
    EXPECT_EQ(0, writer->acquire_write());
    EXPECT_EQ("Write", m_peer.sees());
    EXPECT_EQ(LockLevel::Read, reader->level());
}

TEST_P(FileLockTest, aWriterThatGoesLeavesTheReadOfAReadOnlyHolder)
{
    auto writer = m_file.open(O_WRONLY);
    auto reader = m_file.open(O_RDONLY);
    ASSERT_EQ(0, writer->acquire_write());
    ASSERT_EQ(0, reader->acquire_read());
    EXPECT_EQ(0, writer->release());
    EXPECT_EQ("Read", m_peer.sees());
    ASSERT_EQ(0, writer->acquire_write());
    EXPECT_EQ("Write", m_peer.sees());
    writer.reset();
    EXPECT_EQ("Read", m_peer.sees());
    expectCounts(1, 1);
    reader.reset();
    EXPECT_EQ("None", m_peer.sees());
    expectCounts(0, 0);
}

TEST_P(FileLockTest, aHolderThatMayNotLockIsRefusedEvenWhenTheProcessHoldsEnough)
{
    const auto reader = m_file.open(O_RDONLY);
    const auto writer = m_file.open(O_WRONLY);
    EXPECT_REFUSED(EBADF, reader->acquire_write());
    EXPECT_REFUSED(EBADF, reader->tryacquire_write());
    EXPECT_REFUSED(EBADF, writer->acquire_read());
    ASSERT_EQ(0, writer->acquire_write());
    EXPECT_REFUSED(EBADF, reader->acquire_write());
    EXPECT_REFUSED(EBADF, writer->acquire_read());
    EXPECT_EQ(LockLevel::Write, writer->level());
    EXPECT_EQ("Write", m_peer.sees());
    EXPECT_EQ(LockLevel::None, reader->level());
}

TEST_P(FileLockTest, whatCannotBeOpenedIsNullWithTheReason)
{
    const std::size_t before = descriptorCount();
    const auto reason = [](const std::string& path, int flags) {
        errno = 0;
        EXPECT_FALSE(FileLock::open(path, flags));
        return errno;
    };
    EXPECT_EQ(ENOENT, reason(m_file.path("missing"), O_RDWR));
    EXPECT_EQ(EISDIR, reason(m_file.path(""), O_RDONLY));
    EXPECT_EQ(EISDIR, reason(m_file.path(""), O_RDWR));
    ASSERT_EQ(0, ::mkfifo(m_file.path("pipe").c_str(), 0600));
    EXPECT_EQ(EINVAL, reason(m_file.path("pipe"), O_RDONLY));
    EXPECT_EQ(EINVAL, reason(m_file.path("pipe"), O_RDWR));
    EXPECT_EQ(EINVAL, reason(m_file.path() + std::string("\0tail", 5), O_RDONLY));
    EXPECT_EQ(before, descriptorCount());
    expectCounts(0, 0);
}

TEST_P(FileLockTest, aFileIsCreatedWithItsPermissionsAndNotInheritedByPrograms)
{
    ::umask(0);
    const auto lock = FileLock::open(m_file.path("new"), O_RDWR | O_CREAT | O_EXCL, 0640);
    ASSERT_TRUE(lock);
    struct stat status = {};
    ASSERT_EQ(0, ::fstat(lock->get_handle(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777u);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(lock->get_handle(), F_GETFD));
    EXPECT_FALSE(FileLock::open(m_file.path("new"), O_RDWR | O_CREAT | O_EXCL, 0640));
    EXPECT_EQ(EEXIST, errno);
}

TEST_P(FileLockTest, twoNamesOfOneFileAreOneFileAndTwoFilesAreTwo)
{
    ASSERT_EQ(0, ::link(m_file.path().c_str(), m_file.path("alias").c_str()));
    const auto lock = m_file.open();
    ASSERT_EQ(0, lock->acquire_write());
    const auto alias = FileLock::open(m_file.path("alias"), O_RDWR);
    EXPECT_REFUSED(EBUSY, alias->tryacquire_read());
    const auto other = FileLock::open(m_file.path("other"), O_RDWR | O_CREAT, 0600);
    EXPECT_EQ(0, other->tryacquire_write());
}

TEST_P(FileLockTest, aFileRemovedAndMadeAnewIsAnotherFile)
{
    auto old = m_file.open();
    ASSERT_EQ(0, old->acquire_write());
    EXPECT_TRUE(old->isStillAt(m_file.path()));
    ASSERT_EQ(0, ::unlink(m_file.path().c_str()));
    EXPECT_FALSE(old->isStillAt(m_file.path()));
    const auto fresh = FileLock::open(m_file.path(), O_RDWR | O_CREAT, 0600);
    ASSERT_TRUE(fresh);
    EXPECT_FALSE(old->isStillAt(m_file.path()));
    EXPECT_TRUE(fresh->isStillAt(m_file.path()));
    EXPECT_FALSE(fresh->isStillAt(m_file.path("missing")));
    EXPECT_EQ(0, fresh->tryacquire_write());
    // Locks on the old file do not touch the new one.
    old.reset();
    m_peer.open(1, m_file.path());
    EXPECT_EQ("Write", m_peer.sees(1));
    expectCounts(1, 1);
    // A rename replaces the file.
    std::ofstream(m_file.path("other")) << "other";
    ASSERT_EQ(0, ::rename(m_file.path("other").c_str(), m_file.path().c_str()));
    EXPECT_FALSE(fresh->isStillAt(m_file.path()));
}

TEST_P(FileLockTest, theInodeOfAFileThatIsOpenIsNotMistakenForAnother)
{
    // Make, lock, remove and close the file many times. The file system uses the same inode again,
    // so the entry of the last file must be gone.
    for (int i = 0; i < 50; ++i) {
        const auto lock = FileLock::open(m_file.path("again"), O_RDWR | O_CREAT | O_EXCL, 0600);
        ASSERT_TRUE(lock);
        ASSERT_EQ(0, lock->tryacquire_write());
        ASSERT_EQ(0, ::unlink(m_file.path("again").c_str()));
    }
    expectCounts(0, 0);
}

} // namespace
