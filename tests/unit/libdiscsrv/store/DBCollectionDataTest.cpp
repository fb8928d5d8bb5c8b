// The payload files of the store.

#include "DiscDB.h"

#include <chrono>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <tlx/FileSystem.h>
#include <tlx/StopNotice.h>

#include "RefusedCall.h"
#include "StoreFixture.h"
#include "TemporaryRemoval.h"
#include "support/Capture.h"
#include "support/ScriptedFileSystem.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using namespace std::chrono_literals;
using QmTest::AssertionCapture;
using QmTest::contentOf;
using QmTest::descriptorOf;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::writeFile;

struct DBCollectionDataTest : QmTest::Store
{
    std::unique_ptr<DBCollectionData> make()
    {
        return std::make_unique<DBCollectionData>(TlxPathname(path("x.dat").string()));
    }
    std::string name(const std::string& file) const { return path(file).string(); }
};

TEST_F(DBCollectionDataTest, AnUpdateWritesToATemporaryFile)
{
    const auto data = make();
    const LogCapture log;
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    EXPECT_EQ(log.texts(4), (Lines{"Attempting collecation data file " + name("0.updating"),
                                   "Opening collection file: " + name("0.updating")}));
    EXPECT_TRUE(data->writeCollection(3, "abc"));
    EXPECT_TRUE(data->writeCollection(0, nullptr));
    EXPECT_TRUE(data->writeCollection(2, "de"));
    EXPECT_EQ(contentOf(path("0.updating")), "abcde");
    struct stat status = {};
    ASSERT_EQ(::stat(name("0.updating").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0u);
}

TEST_F(DBCollectionDataTest, WithTheFirstNumberTakenTheSecondIsUsed)
{
    writeFile(path("0.updating"), "another writer's");
    const auto data = make();
    const LogCapture log;
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    EXPECT_EQ(files(), (Lines{"0.updating", "1.updating", "Update.lock"}));
    EXPECT_EQ(log.texts(1), Lines{"Last error17"});
    EXPECT_EQ(contentOf(path("0.updating")), "another writer's");
}

TEST_F(DBCollectionDataTest, AThousandTakenNumbersAreAFailure)
{
    for (int i = 0; i < 1000; ++i)
        writeFile(path(std::to_string(i) + ".updating"), "");
    const auto data = make();
    const LogCapture log;
    EXPECT_FALSE(data->open(OM_UPDATE, ""));
    Lines lines(1000, "Last error17");
    lines.push_back("No temporary name is free: 1000 payloads are being written or left over");
    EXPECT_EQ(log.texts(1), lines);
    EXPECT_EQ(log.texts(4).size(), 2000u);
    EXPECT_EQ(log.texts(4).back(), "Opening collection file: " + name("999.updating"));
    // A deleted temporary payload holds no lock, so a clean-up may run.
    EXPECT_TRUE(CleanupLock(dir().c_str(), CleanupLock::LM_EXCLUSIVE).isLocked());
}

TEST_F(DBCollectionDataTest, PersistMovesThePayloadToItsPlace)
{
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    EXPECT_TRUE(data->writeCollection(3, "abc"));
    const LogCapture log;
    EXPECT_TRUE(data->persist(TlxPathname(name("x.dat"))));
    EXPECT_EQ(contentOf(path("x.dat")), "abc");
    EXPECT_EQ(files(), (Lines{"Update.lock", "x.dat"}));
    EXPECT_EQ(log.texts(1),
              (Lines{"Unable to delete " + name("x.dat"),
                     "Successfully renamed " + name("0.updating") + " to " + name("x.dat")}));
    EXPECT_TRUE(data->open(OM_READ, ""));
    EXPECT_NE(descriptorOf(path("x.dat")), -1);
}

TEST_F(DBCollectionDataTest, BytesThatComeAfterASyncAreSyncedToo)
{
    struct CountingFileSystem : FileSystem
    {
        CountingFileSystem() { FileSystem::replace(this); }
        ~CountingFileSystem() override { FileSystem::replace(nullptr); }
        int fdatasync(int descriptor) override
        {
            ++syncs;
            return FileSystem::fdatasync(descriptor);
        }
        int syncs = 0;
    } files;
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    EXPECT_TRUE(data->writeCollection(3, "abc"));
    EXPECT_TRUE(data->prepare());
    EXPECT_TRUE(data->prepare());
    EXPECT_EQ(files.syncs, 1);
    EXPECT_TRUE(data->writeCollection(3, "def"));
    EXPECT_TRUE(data->persist(TlxPathname(name("x.dat"))));
    EXPECT_EQ(files.syncs, 2);
}

TEST_F(DBCollectionDataTest, PersistReplacesAStoredPayload)
{
    writeFile(path("x.dat"), "old");
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    EXPECT_TRUE(data->writeCollection(3, "new"));
    const LogCapture log;
    EXPECT_TRUE(data->persist(TlxPathname(name("x.dat"))));
    EXPECT_EQ(contentOf(path("x.dat")), "new");
    EXPECT_EQ(log.texts(4), Lines{"Deleted file: " + name("x.dat")});
}

TEST_F(DBCollectionDataTest, PersistWithoutWritingLeavesAnEmptyPayload)
{
    const auto data = make();
    EXPECT_TRUE(data->persist(TlxPathname(name("x.dat"))));
    EXPECT_TRUE(std::filesystem::exists(path("x.dat")));
    EXPECT_EQ(contentOf(path("x.dat")), "");
}

TEST_F(DBCollectionDataTest, APayloadThatCannotBeMovedIsDeletedAtOnce)
{
    std::filesystem::create_directory(path("x.dat"));
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    const LogCapture log;
    EXPECT_FALSE(data->persist(TlxPathname(name("x.dat"))));
    EXPECT_EQ(log.texts(1),
              (Lines{"Unable to delete " + name("x.dat"),
                     "Unable to rename " + name("0.updating") + " to " + name("x.dat"),
                     "The cause: EISDIR, Is a directory", "Deleted file: " + name("0.updating")}));
    EXPECT_EQ(files(), (Lines{"Update.lock", "x.dat"}));
    EXPECT_TRUE(CleanupLock(dir().c_str(), CleanupLock::LM_EXCLUSIVE).isLocked());
}

TEST_F(DBCollectionDataTest, PersistOfAPayloadThatIsBeingReadTouchesNothing)
{
    writeFile(path("x.dat"), "stored");
    const auto data = make();
    EXPECT_TRUE(data->open(OM_READ, ""));
    const AssertionCapture assertions;
    EXPECT_FALSE(data->persist(TlxPathname(name("x.dat"))));
    EXPECT_EQ(assertions.texts(), Lines{"m_mode == OM_UPDATE"});
    EXPECT_EQ(contentOf(path("x.dat")), "stored");
}

TEST_F(DBCollectionDataTest, ReadsWhatIsStored)
{
    writeFile(path("x.dat"), "stored payload");
    const auto data = make();
    const LogCapture log;
    EXPECT_TRUE(data->open(OM_READ, "not used"));
    EXPECT_EQ(log.texts(4), Lines{"Opening collection file: " + name("x.dat")});
    char buffer[100];
    EXPECT_EQ(data->readCollection(6, buffer), 6u);
    EXPECT_EQ(data->readCollection(sizeof buffer, buffer), 8u);
    EXPECT_EQ(std::string(buffer, 8), " payload");
    EXPECT_EQ(data->readCollection(sizeof buffer, buffer), 0u);
}

TEST_F(DBCollectionDataTest, ReadingWithoutAPayloadFailsAtOnce)
{
    const auto data = make();
    const LogCapture log;
    EXPECT_FALSE(data->open(OM_READ, ""));
    EXPECT_EQ(log.texts(1), Lines{"Last error2"});
    EXPECT_EQ(log.texts(4), Lines{"Opening collection file: " + name("x.dat")});
}

TEST_F(DBCollectionDataTest, OnlyAFileCanBeRead)
{
    std::filesystem::create_directory(path("x.dat"));
    const LogCapture log;
    EXPECT_FALSE(make()->open(OM_READ, ""));
    std::filesystem::remove(path("x.dat"));
    ASSERT_EQ(::mkfifo(name("x.dat").c_str(), 0600), 0);
    EXPECT_FALSE(make()->open(OM_READ, ""));
    EXPECT_EQ(log.texts(1), Lines(2, "Last error22"));
}

TEST_F(DBCollectionDataTest, AFailedReadIsTheLargestValue)
{
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, "")); // write-only
    char buffer[1];
    const LogCapture log;
    EXPECT_EQ(data->readCollection(1, buffer), static_cast<std::size_t>(-1));
    EXPECT_EQ(log.texts(1), Lines{"Unable to read " + name("0.updating") + ", error 9"});
    EXPECT_EQ(log.lines()[0].operation, "DBCollectionData::readCollection");
}

TEST_F(DBCollectionDataTest, APayloadThatLostBytesIsNotPersisted)
{
    writeFile(path("x.dat"), "stored");
    QM_IN_CHILD([this] {
        const auto data = make();
        EXPECT_TRUE(data->open(OM_UPDATE, ""));
        EXPECT_FALSE(data->isSpoilt());
        EXPECT_TRUE(data->writeCollection(3, "abc"));
        const auto handle = static_cast<unsigned>(descriptorOf(path("0.updating")));
        QmTest::refuseCalls(__NR_write, 0, {handle}, ENOSPC);
        const LogCapture log;
        EXPECT_FALSE(data->writeCollection(3, "new"));
        EXPECT_EQ(log.texts(1), Lines{"Unable to write " + name("0.updating") + ", error 28"});
        EXPECT_EQ(log.lines()[0].operation, "DBCollectionData::writeCollection");
        EXPECT_TRUE(data->isSpoilt());
        EXPECT_EQ(contentOf(path("0.updating")), "")
            << "the file system gets its space back at once";
        EXPECT_FALSE(data->writeCollection(3, "end"));
        EXPECT_EQ(log.texts(1).size(), 1u) << "no later part is tried";
        EXPECT_FALSE(data->persist(TlxPathname(name("x.dat"))));
        EXPECT_EQ(contentOf(path("x.dat")), "stored");
    });
}

TEST_F(DBCollectionDataTest, APayloadThatCannotBeSyncedIsNotMoved)
{
    writeFile(path("x.dat"), "stored");
    QM_IN_CHILD([this] {
        const auto data = make();
        EXPECT_TRUE(data->open(OM_UPDATE, ""));
        const auto handle = static_cast<unsigned>(descriptorOf(path("0.updating")));
        QmTest::refuseCalls(__NR_fdatasync, 0, {handle}, EIO);
        const LogCapture log;
        EXPECT_FALSE(data->persist(TlxPathname(name("x.dat"))));
        EXPECT_EQ(log.texts(1), (Lines{"Unable to sync " + name("0.updating") + ", error 5",
                                       "Deleted file: " + name("0.updating")}));
        EXPECT_EQ(contentOf(path("x.dat")), "stored");
    });
}

TEST_F(DBCollectionDataTest, ADirectoryThatCannotBeSyncedFailsThePersist)
{
    QM_IN_CHILD([this] {
        const auto data = make();
        const int spare = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        EXPECT_TRUE(data->open(OM_UPDATE, ""));
        // The directory is opened next. It gets the lowest free descriptor.
        ASSERT_LT(spare, descriptorOf(path("0.updating")));
        ::close(spare);
        QmTest::refuseCalls(__NR_fsync, 0, {static_cast<unsigned>(spare)}, EIO);
        const LogCapture log;
        EXPECT_FALSE(data->persist(TlxPathname(name("x.dat"))));
        EXPECT_EQ(log.texts(1).back(), "Unable to sync " + dir() + ", error 5");
        EXPECT_TRUE(std::filesystem::exists(path("x.dat")));
    });
}

TEST_F(DBCollectionDataTest, ALockThatTheKernelRefusesIsLogged)
{
    QM_IN_CHILD([this] {
        QmTest::refuseCalls(__NR_fcntl, 1, {F_OFD_SETLK}, ENOLCK);
        const LogCapture log;
        EXPECT_FALSE(CleanupLock(dir().c_str(), CleanupLock::LM_SHARED).isLocked());
        EXPECT_FALSE(CleanupLock(dir().c_str(), CleanupLock::LM_EXCLUSIVE).isLocked());
        EXPECT_FALSE(make()->open(OM_UPDATE, ""));
        EXPECT_EQ(log.texts(1).size(), 6u);
        for (std::size_t i = 0; i < 6; i += 2) {
            EXPECT_EQ(log.texts(1)[i], "Unable to lock " + name("Update.lock"));
            EXPECT_EQ(log.texts(1)[i + 1], "The cause: ENOLCK, No locks available");
        }
        EXPECT_EQ(files(), Lines{"Update.lock"});
    });
}

TEST_F(DBCollectionDataTest, AfterAFailedPersistTheNextOneStoresNoEmptyPayload)
{
    std::filesystem::create_directory(path("x.dat"));
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    EXPECT_TRUE(data->writeCollection(3, "abc"));
    EXPECT_FALSE(data->persist(TlxPathname(name("x.dat"))));
    std::filesystem::remove(path("x.dat"));
    EXPECT_FALSE(data->persist(TlxPathname(name("x.dat"))));
    EXPECT_FALSE(std::filesystem::exists(path("x.dat")));
    // It can be opened again.
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    EXPECT_TRUE(data->writeCollection(3, "def"));
    EXPECT_TRUE(data->persist(TlxPathname(name("x.dat"))));
    EXPECT_EQ(contentOf(path("x.dat")), "def");
}

TEST_F(DBCollectionDataTest, PersistOfWhatCannotBeOpenedIsReported)
{
    std::filesystem::remove(path("Update.lock"));
    std::filesystem::create_directory(path("Update.lock"));
    const AssertionCapture assertions;
    EXPECT_FALSE(make()->persist(TlxPathname(name("x.dat"))));
    EXPECT_EQ(assertions.texts(), Lines{"ACE_INVALID_HANDLE != m_handle"});
    EXPECT_EQ(files(), Lines{"Update.lock"});
}

TEST_F(DBCollectionDataTest, ACloseThatFailsIsReported)
{
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    ::close(descriptorOf(path("0.updating")));
    const AssertionCapture assertions;
    EXPECT_TRUE(data->cleanup());
    EXPECT_EQ(assertions.texts(), Lines{"0 == ACE_OS::close(m_handle)"});
    EXPECT_EQ(files(), Lines{"Update.lock"});
}

TEST_F(DBCollectionDataTest, WithoutAnOpenFileNothingIsReadOrWritten)
{
    const auto data = make();
    const AssertionCapture assertions;
    char buffer[1] = {};
    EXPECT_EQ(data->readCollection(1, buffer), static_cast<std::size_t>(-1));
    EXPECT_FALSE(data->writeCollection(1, buffer));
    EXPECT_EQ(assertions.texts(), Lines(2, "ACE_INVALID_HANDLE != m_handle"));
}

TEST_F(DBCollectionDataTest, CleanupGivesUpWhatIsBeingWritten)
{
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    const LogCapture log;
    EXPECT_TRUE(data->cleanup());
    EXPECT_EQ(log.texts(1), Lines{"Deleted file: " + name("0.updating")});
    EXPECT_EQ(files(), Lines{"Update.lock"});
    EXPECT_TRUE(CleanupLock(dir().c_str(), CleanupLock::LM_EXCLUSIVE).isLocked());
    EXPECT_TRUE(data->cleanup()); // nothing is open any more
    EXPECT_EQ(log.texts(1).size(), 1u);
    writeFile(path("x.dat"), "stored");
    EXPECT_TRUE(data->open(OM_READ, "")); // reads its own file, not the temporary one
}

/// A disk that takes time for each removal, and none for a write.
class SlowRemoval : public QmTest::ScriptedFileSystem
{
  public:
    explicit SlowRemoval(std::chrono::milliseconds time) : m_time(time) {}
    int unlink(const char* path) override
    {
        std::this_thread::sleep_for(m_time);
        return ScriptedFileSystem::unlink(path);
    }
    ssize_t write(int, const void*, std::size_t size) override
    {
        return static_cast<ssize_t>(size);
    }

  private:
    const std::chrono::milliseconds m_time;
};

struct DBCollectionDataStopTest : DBCollectionDataTest
{
    ~DBCollectionDataStopTest() override { withdrawStop(); }
    /// Gives up writers, and returns what is left of their files.
    Lines leftOf(std::size_t writers, std::size_t bytes = 0)
    {
        std::vector<std::unique_ptr<DBCollectionData>> all(writers);
        for (auto& each : all) {
            each = make();
            EXPECT_TRUE(each->open(OM_UPDATE, ""));
            EXPECT_TRUE(each->writeCollection(bytes, nullptr));
        }
        announceStop();
        all.clear();
        withdrawStop();
        Lines left = files();
        std::erase(left, "Update.lock");
        for (const std::string& each : left)
            std::filesystem::remove(path(each));
        return left;
    }
};

TEST_F(DBCollectionDataStopTest, AStopRemovesWhatIsBeingWritten)
{
    EXPECT_EQ(leftOf(100), Lines{});
}

TEST_F(DBCollectionDataStopTest, AStopRemovesForASecondAndTheNextStartRemovesTheRest)
{
    const SlowRemoval slow(STOP_REMOVES_FOR);
    const LogCapture log;
    EXPECT_EQ(leftOf(2), Lines{"1.updating"});
    EXPECT_EQ(log.texts(1).back(), "The next start deletes " + name("1.updating"));
}

TEST_F(DBCollectionDataStopTest, AStopLeavesALargePayload)
{
    const SlowRemoval slow(0ms);
    EXPECT_EQ(leftOf(1, STOP_REMOVES_BYTES), Lines{});
    EXPECT_EQ(leftOf(1, STOP_REMOVES_BYTES + 1), Lines{"0.updating"});
}

TEST_F(DBCollectionDataTest, CleanupReportsFilesThatItCannotDelete)
{
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    std::filesystem::remove(path("0.updating"));
    const LogCapture log;
    EXPECT_TRUE(data->cleanup());
    EXPECT_EQ(log.texts(1), (Lines{"Unable to delete " + name("0.updating"),
                                   "The cause: ENOENT, No such file or directory"}));
}

TEST_F(DBCollectionDataTest, CleanupLeavesTheNewFileOfAnotherWriter)
{
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    std::filesystem::remove(path("0.updating"));
    writeFile(path("0.updating"), "another writer's");
    const LogCapture log;
    EXPECT_TRUE(data->cleanup());
    EXPECT_EQ(log.texts(1),
              Lines{"Another process has made a new file " + name("0.updating") + ", so it stays"});
    EXPECT_EQ(contentOf(path("0.updating")), "another writer's");
}

TEST_F(DBCollectionDataTest, AWriterWithoutItsTemporaryFileStoresNothing)
{
    for (const bool hasAnother : {false, true}) {
        writeFile(path("x.dat"), "stored");
        const auto data = make();
        EXPECT_TRUE(data->open(OM_UPDATE, ""));
        EXPECT_TRUE(data->writeCollection(3, "abc"));
        std::filesystem::remove(path("0.updating"));
        if (hasAnother)
            writeFile(path("0.updating"), "another writer's");
        const LogCapture log;
        EXPECT_FALSE(data->persist(TlxPathname(name("x.dat"))));
        EXPECT_EQ(log.texts(1).front(),
                  "Somebody has removed the temporary file " + name("0.updating"));
        EXPECT_TRUE(data->isSpoilt());
        EXPECT_EQ(contentOf(path("x.dat")), "stored");
        EXPECT_EQ(std::filesystem::exists(path("0.updating")), hasAnother);
        std::filesystem::remove(path("0.updating"));
    }
}

TEST_F(DBCollectionDataTest, ATemporaryFileThatIsRemovedAfterItsSyncIsMissed)
{
    writeFile(path("x.dat"), "stored");
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    EXPECT_TRUE(data->writeCollection(3, "abc"));
    EXPECT_TRUE(data->prepare());
    std::filesystem::remove(path("0.updating"));
    EXPECT_FALSE(data->persist(TlxPathname(name("x.dat"))));
    EXPECT_EQ(contentOf(path("x.dat")), "stored");
}

TEST_F(DBCollectionDataTest, AWriterWhoseLockFileWasRemovedLocksTheNewOne)
{
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    EXPECT_TRUE(data->writeCollection(3, "abc"));
    std::filesystem::remove(path("Update.lock"));
    const LogCapture log;
    EXPECT_TRUE(data->prepare());
    EXPECT_EQ(log.texts(1), Lines{"Somebody has removed the lock file of " + name("0.updating")});
    EXPECT_FALSE(CleanupLock(dir().c_str(), CleanupLock::LM_EXCLUSIVE).isLocked());
    EXPECT_TRUE(data->persist(TlxPathname(name("x.dat"))));
    EXPECT_EQ(contentOf(path("x.dat")), "abc");
    EXPECT_TRUE(CleanupLock(dir().c_str(), CleanupLock::LM_EXCLUSIVE).isLocked());
}

TEST_F(DBCollectionDataTest, ALockFileThatIsReplacedDuringTheOpeningIsOpenedAgain)
{
    for (const auto mode : {CleanupLock::LM_SHARED, CleanupLock::LM_EXCLUSIVE}) {
        QmTest::ScriptedFileSystem files;
        int opened = 0;
        files.afterOpen([&] {
            if (++opened == 1)
                std::filesystem::remove(path("Update.lock"));
        });
        const CleanupLock lock(dir().c_str(), mode);
        EXPECT_TRUE(lock.isLocked());
        EXPECT_TRUE(lock.isStillInPlace());
        EXPECT_EQ(opened, 2);
        // The next holder meets this one.
        EXPECT_FALSE(CleanupLock(dir().c_str(), CleanupLock::LM_EXCLUSIVE).isLocked());
    }
}

TEST_F(DBCollectionDataTest, ALockOnARemovedFileIsNotInPlace)
{
    const CleanupLock lock(dir().c_str(), CleanupLock::LM_SHARED);
    EXPECT_TRUE(lock.isStillInPlace());
    std::filesystem::remove(path("Update.lock"));
    EXPECT_FALSE(lock.isStillInPlace());
    writeFile(path("Update.lock"), "");
    EXPECT_FALSE(lock.isStillInPlace());
}

TEST_F(DBCollectionDataTest, CleanupNeverDeletesAStoredPayload)
{
    writeFile(path("x.dat"), "stored");
    const auto data = make();
    EXPECT_TRUE(data->open(OM_READ, ""));
    EXPECT_TRUE(data->cleanup());
    EXPECT_EQ(contentOf(path("x.dat")), "stored");
}

TEST_F(DBCollectionDataTest, DestructionGivesUpAnUpdateAndOnlyClosesARead)
{
    writeFile(path("x.dat"), "stored");
    {
        const auto writing = make();
        EXPECT_TRUE(writing->open(OM_UPDATE, ""));
        const auto reading = make();
        EXPECT_TRUE(reading->open(OM_READ, ""));
    }
    EXPECT_EQ(files(), (Lines{"Update.lock", "x.dat"}));
}

TEST_F(DBCollectionDataTest, OpeningAgainStartsAfresh)
{
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    EXPECT_TRUE(data->writeCollection(3, "abc"));
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    EXPECT_TRUE(data->writeCollection(1, "x"));
    EXPECT_TRUE(data->persist(TlxPathname(name("x.dat"))));
    EXPECT_EQ(contentOf(path("x.dat")), "x");
    EXPECT_TRUE(data->open(OM_READ, ""));
    EXPECT_TRUE(data->open(OM_READ, ""));
    char buffer[10];
    EXPECT_EQ(data->readCollection(10, buffer), 1u);
    EXPECT_EQ(files(), (Lines{"Update.lock", "x.dat"}));
}

TEST_F(DBCollectionDataTest, ExpireDeletesThePayload)
{
    writeFile(path("x.dat"), "stored");
    const auto data = make();
    const LogCapture log;
    EXPECT_TRUE(data->expire());
    EXPECT_EQ(log.texts(4), Lines{"Deleted colllection: " + name("x.dat")});
    EXPECT_TRUE(data->expire());
    EXPECT_EQ(log.texts(1), Lines{"Collection data did not exist " + name("x.dat")});
    std::filesystem::create_directory(path("x.dat"));
    EXPECT_FALSE(data->expire());
}

TEST_F(DBCollectionDataTest, AWriterWithoutTheDirectorysLockWritesNothing)
{
    std::filesystem::remove(path("Update.lock"));
    std::filesystem::create_directory(path("Update.lock"));
    const auto data = make();
    const LogCapture log;
    EXPECT_FALSE(data->open(OM_UPDATE, ""));
    EXPECT_EQ(log.texts(1), (Lines{"Unable to open " + name("Update.lock"),
                                   "The cause: EISDIR, Is a directory"}));
    EXPECT_EQ(files(), Lines{"Update.lock"});
}

TEST_F(DBCollectionDataTest, TheCleanUpsLockIsRefusedWhileAWriterHoldsIt)
{
    const auto data = make();
    EXPECT_TRUE(data->open(OM_UPDATE, ""));
    const LogCapture log;
    EXPECT_FALSE(CleanupLock(dir().c_str(), CleanupLock::LM_EXCLUSIVE).isLocked());
    EXPECT_EQ(log.texts(1),
              (Lines{"Unable to lock " + name("Update.lock"),
                     "The cause: another process or another writer has a lock on it"}));
    EXPECT_TRUE(CleanupLock(dir().c_str(), CleanupLock::LM_SHARED).isLocked());
    struct stat status = {};
    ASSERT_EQ(::stat(name("Update.lock").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0u);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
