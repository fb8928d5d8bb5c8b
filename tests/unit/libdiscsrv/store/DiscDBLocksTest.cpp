// The store's locks: threads of one process, and processes.

#include "DiscDB.h"

#include <atomic>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "StorePeer.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::contentOf;
using QmTest::eventually;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::METADATA;
using QmTest::PAYLOAD;
using QmTest::putStamped;
using QmTest::stampsOf;

constexpr const char* BUSY = "The cause: another process or another writer has a lock on it";

/// Works in another thread. It would wait for a lock that an earlier thread has left locked.
void inThread(const std::function<void()>& work)
{
    std::thread(work).join();
}

struct DiscDBLocksTest : QmTest::Store
{
    void SetUp() override
    {
        Store::SetUp();
        if (!IsSkipped()) {
            ASSERT_EQ(peer.ask("init " + dir()), "done, left 0");
            ASSERT_EQ(peer.ask("now 1000"), "done");
            ASSERT_EQ(second.ask("init " + dir()), "done, left 0");
            ASSERT_EQ(second.ask("now 1000"), "done");
        }
    }
    std::string find(const char* file) { return peer.ask(std::string("find ") + file); }
    std::string sees(const std::string& file) { return peer.ask("sees " + path(file).string()); }
    static bool thisProcessWaits()
    {
        return eventually([] { return FileLock::counts().waiting > 0; });
    }
    using Store::find;

    QmTest::StorePeer peer; // forked before this process opens anything
    QmTest::StorePeer second;
    QmTest::StorePeer third; // has not begun
    LogCapture log;
};

TEST_F(DiscDBLocksTest, ASecondProcessReadsWhatTheFirstWrote)
{
    EXPECT_EQ(put({.payload = "from here"}), DS_SUCCESS);
    EXPECT_EQ(peer.ask(std::string("find ") + METADATA), "found from here");
}

TEST_F(DiscDBLocksTest, TheFirstOfTwoThreadsToPersistKeepsTheOthersHoldOnUpdateLock)
{
    auto first = make({.subject = "a"});
    auto second = make({.subject = "b"});
    EXPECT_EQ(peer.ask("clean " + dir()), "1");
    inThread([&] { EXPECT_EQ(first->open(OM_UPDATE, "").discStatus, DS_SUCCESS); });
    inThread([&] { EXPECT_EQ(second->open(OM_UPDATE, "").discStatus, DS_SUCCESS); });
    EXPECT_EQ(peer.ask("clean " + dir()), "0");
    inThread([&] {
        EXPECT_EQ(first->persist().discStatus, DS_SUCCESS);
        first.reset();
    });
    EXPECT_EQ(peer.ask("clean " + dir()), "0");
    EXPECT_EQ(sees("Update.lock"), "Read");
    EXPECT_TRUE(std::filesystem::exists(path("1.updating")));
    inThread([&] { EXPECT_EQ(second->persist().discStatus, DS_SUCCESS); });
    EXPECT_EQ(sees("Update.lock"), "None");
    EXPECT_EQ(peer.ask("clean " + dir()), "1");
}

TEST_F(DiscDBLocksTest, TheFirstOfTwoThreadsToGiveUpKeepsTheOthersHoldOnUpdateLock)
{
    auto first = make({.subject = "a"});
    auto second = make({.subject = "b"});
    inThread([&] { EXPECT_EQ(first->open(OM_UPDATE, "").discStatus, DS_SUCCESS); });
    inThread([&] { EXPECT_EQ(second->open(OM_UPDATE, "").discStatus, DS_SUCCESS); });
    inThread([&] { first.reset(); });
    EXPECT_EQ(peer.ask("clean " + dir()), "0");
    inThread([&] { second.reset(); });
    EXPECT_EQ(peer.ask("clean " + dir()), "1");
    EXPECT_EQ(files(), Lines{"Update.lock"});
}

TEST_F(DiscDBLocksTest, TheCleanUpOfThisProcessKeepsItsOwnWritersHoldOnUpdateLock)
{
    const auto record = make({});
    ASSERT_EQ(record->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    inThread(
        [&] { EXPECT_FALSE(CleanupLock(dir().c_str(), CleanupLock::LM_EXCLUSIVE).isLocked()); });
    EXPECT_EQ(sees("Update.lock"), "Read");
}

TEST_F(DiscDBLocksTest, AWriterThatACleanUpWithANewLockFileRobsStoresNothing)
{
    ASSERT_EQ(put({.payload = "stored"}), DS_SUCCESS);
    ASSERT_EQ(peer.ask("begin cl5 9"), "0");
    ASSERT_EQ(peer.ask("write new"), "1");
    ASSERT_EQ(second.ask("begin cl6 9"), "0");
    ASSERT_EQ(second.ask("write other"), "1");
    std::filesystem::remove(path("Update.lock"));
    EXPECT_EQ(third.ask("init " + dir()), "done, left 0");
    // The number of the first writer's file is used again.
    ASSERT_EQ(third.ask("begin cl7 1"), "0");
    ASSERT_EQ(third.ask("write third"), "1");
    ASSERT_EQ(files(), (Lines{"0.updating", PAYLOAD, METADATA, "Update.lock"}));
    const std::string before = contentOf(path(METADATA));

    EXPECT_EQ(peer.ask("persist"), std::to_string(DS_OPEN_FAILED));
    EXPECT_EQ(second.ask("persist"), std::to_string(DS_OPEN_FAILED));
    EXPECT_EQ(contentOf(path(METADATA)), before);
    EXPECT_EQ(contentOf(path(PAYLOAD)), "stored");
    EXPECT_EQ(third.ask("persist"), std::to_string(DS_SUCCESS));
    // The next puts of the robbed writers succeed.
    ASSERT_EQ(peer.ask("begin cl5 9"), "0");
    ASSERT_EQ(peer.ask("write new"), "1");
    EXPECT_EQ(peer.ask("persist"), std::to_string(DS_SUCCESS));
    EXPECT_EQ(contentOf(path(PAYLOAD)), "new");
}

TEST_F(DiscDBLocksTest, ALookupKeepsTheReadLockOfAnother)
{
    put({});
    put({.subject = "cl6"});
    const auto iterator = AutoDereference<DiscoveryIterator>(
        getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA));
    iterator->setSubject("cl5");
    AutoDereference<Discovery> kept(iterator->getNext());
    ASSERT_TRUE(kept);
    ASSERT_EQ(sees(METADATA), "Read");
    // Another thread opens, reads and closes the record.
    inThread([&] { EXPECT_TRUE(Store::find(METADATA)); });
    EXPECT_EQ(sees(METADATA), "Read");
    inThread([&] { EXPECT_EQ(all(), (Lines{"cl5", "cl6"})); });
    EXPECT_EQ(sees(METADATA), "Read");
    inThread([&] { EXPECT_TRUE(make({})->canOverride()); });
    EXPECT_EQ(sees(METADATA), "Read");
    // Another thread takes and releases the write lock.
    inThread([&] { EXPECT_EQ(put({.payload = "new"}), DS_SUCCESS); });
    EXPECT_EQ(sees(METADATA), "Read");
    kept.reset();
    EXPECT_EQ(sees(METADATA), "None");
}

TEST_F(DiscDBLocksTest, APersistedRecordKeepsItsWriteLockWhileOthersComeAndGo)
{
    auto record = make({});
    ASSERT_EQ(record->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    ASSERT_EQ(record->persist().discStatus, DS_SUCCESS);
    EXPECT_EQ(sees(METADATA), "Write");
    inThread([&] { EXPECT_TRUE(Store::find(METADATA)); });
    EXPECT_EQ(sees(METADATA), "Write");
    record.reset();
    EXPECT_EQ(sees(METADATA), "None");
}

TEST_F(DiscDBLocksTest, AWriterGoesOnWhenTheOtherProcessReleasesItsRecord)
{
    put({.payload = "old"});
    auto kept = Store::find(METADATA);
    ASSERT_TRUE(kept);
    EXPECT_EQ(peer.ask("begin cl5 9"), "0");
    EXPECT_EQ(peer.ask("write new"), "1");
    peer.tell("persist");
    EXPECT_TRUE(peer.waits());
    EXPECT_FALSE(peer.answers(std::chrono::milliseconds::zero()));
    EXPECT_EQ(read(*kept), "old");
    kept.reset();
    EXPECT_EQ(peer.answer(), "0");
    EXPECT_EQ(peer.ask("drop"), "done");
    EXPECT_EQ(read(*Store::find(METADATA)), "new");
}

TEST_F(DiscDBLocksTest, AReaderGoesOnWhenTheOtherProcessReleasesItsRecord)
{
    EXPECT_EQ(peer.ask("begin cl5 5"), "0");
    EXPECT_EQ(peer.ask("write theirs"), "1");
    EXPECT_EQ(peer.ask("persist"), "0"); // the peer keeps its write lock
    std::string payload;
    std::thread reader([&] {
        const auto record = Store::find(METADATA);
        payload = record ? read(*record) : "none";
    });
    EXPECT_TRUE(thisProcessWaits());
    EXPECT_EQ(peer.ask("drop"), "done");
    reader.join();
    EXPECT_EQ(payload, "theirs");
}

TEST_F(DiscDBLocksTest, ThePriorityIsLookedAtAgainUnderTheWriteLock)
{
    put({.priority = 1});
    const auto lower = make({.priority = 4});
    ASSERT_EQ(lower->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    EXPECT_EQ(find(METADATA), "found payload"); // so that this process will wait
    log.clear();
    DiscoveryStatus result = DS_SUCCESS;
    std::thread writer([&] { result = lower->persist().discStatus; });
    // The first check has found priority 1. Now another put stores a higher priority.
    EXPECT_TRUE(thisProcessWaits());
    EXPECT_EQ(peer.ask("begin cl5 5"), "0");
    EXPECT_EQ(peer.ask("write five"), "1");
    EXPECT_EQ(peer.ask("persist"), "0");
    EXPECT_EQ(peer.ask("drop"), "done");
    EXPECT_EQ(peer.ask("release"), "done");
    writer.join();
    EXPECT_EQ(result, DS_DATA_EXISTS);
    EXPECT_EQ(log.texts(1), Lines{"Cannot persist, data with higher priority already exists."});
    EXPECT_EQ(contentOf(path(PAYLOAD)), "five");
    EXPECT_EQ(Store::find(METADATA)->getAttributes()->getPriority(), 5u);
}

TEST_F(DiscDBLocksTest, AListingWaitsForOneLockedRecordOnly)
{
    for (const char* subject : {"a", "b", "c"})
        put({.subject = subject});
    for (const char* subject : {"a", "b"}) {
        auto& writer = subject == std::string("a") ? peer : second;
        EXPECT_EQ(writer.ask(std::string("begin ") + subject + " 9"), "0");
        EXPECT_EQ(writer.ask("persist"), "0"); // the peer keeps its write lock
    }
    FileLock::setWaitLimit(std::chrono::milliseconds(300));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(all(), Lines{"c"});
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(300));
    EXPECT_EQ(FileLock::counts().waitsGivenUp, 1u);
    EXPECT_TRUE(log.has(1, "The cause: other processes had a lock on it for all of 300 ms"));
}

TEST_F(DiscDBLocksTest, APutThatWaitsForAnotherPutOfItsProcessSaysSo)
{
    put({.subject = "a", .payload = "old"});
    const auto other = FileLock::open(path("1 srv1 a.xml").string(), O_RDWR);
    ASSERT_TRUE(other);
    const WriterTurn turn(*other);
    FileLock::setWaitLimit(std::chrono::milliseconds(50));
    std::thread([&] { EXPECT_EQ(put({.subject = "a"}), DS_OPEN_FAILED); }).join();
    EXPECT_TRUE(log.has(1, "Unable to lock " + path("1 srv1 a.xml").string()));
    EXPECT_TRUE(
        log.has(1, "The cause: other puts of this process had their turn for all of 50 ms"));
    EXPECT_EQ(find("1 srv1 a.xml"), "found old");
}

TEST_F(DiscDBLocksTest, AnExpiredRecordThatAnotherProcessReadsStays)
{
    put({.timeToLive = 100});
    EXPECT_EQ(find(METADATA), "found payload");
    setNow(2000);
    log.clear();
    EXPECT_FALSE(Store::find(METADATA));
    EXPECT_EQ(log.texts(1), (Lines{path(METADATA).string() + " has expired",
                                   "Unable to upgrade lock to expire file, errno: 16",
                                   path(METADATA).string() + " could not be expired"}));
    EXPECT_EQ(contentOf(path(PAYLOAD)), "payload");
    EXPECT_EQ(sees(METADATA), "None"); // the failed attempt left no lock
    EXPECT_EQ(peer.ask("release"), "done");
    EXPECT_FALSE(Store::find(METADATA));
    EXPECT_EQ(files(), Lines{"Update.lock"});
}

TEST_F(DiscDBLocksTest, ARecordWrittenAnewDuringItsExpiryStays)
{
    put({.timeToLive = 100});
    log.clear();
    // A writer comes after the lookup has read the record, when the lookup asks for the time.
    TlxObjTime::setClock([] {
        setNow(2000);
        inThread([] { EXPECT_EQ(put({.timeToLive = 100, .payload = "new"}), DS_SUCCESS); });
        return TlxObjTime(2000);
    });
    EXPECT_FALSE(Store::find(METADATA));
    const Lines texts = log.texts(1);
    ASSERT_GE(texts.size(), 2u);
    EXPECT_EQ(Lines(texts.end() - 2, texts.end()),
              (Lines{path(METADATA).string() + " has expired",
                     path(METADATA).string() +
                         " was modified during the expire and should not be expired"}));
    const auto record = Store::find(METADATA);
    ASSERT_TRUE(record);
    EXPECT_EQ(read(*record), "new");
}

TEST_F(DiscDBLocksTest, APutOverARecordThatIsBeingExpiredIsNotLost)
{
    for (int round = 0; round < 50; ++round) {
        setNow(1000);
        ASSERT_EQ(put({.timeToLive = 100}), DS_SUCCESS);
        setNow(2000);
        ASSERT_EQ(peer.ask("begin cl5 9"), "0");
        ASSERT_EQ(peer.ask("write new"), "1");
        peer.tell("persist");
        peer.tell("drop"); // sent now, because the lookup may have to wait for the write lock
        all();             // removes the expired record, or finds the new one
        ASSERT_EQ(peer.answer(), "0");
        ASSERT_EQ(peer.answer(), "done");
        const auto found = Store::find(METADATA);
        ASSERT_TRUE(found) << "round " << round;
        ASSERT_EQ(read(*found), "new");
        ASSERT_EQ(found->getAttributes()->getPriority(), 9u);
        std::filesystem::remove(path(METADATA));
        std::filesystem::remove(path(PAYLOAD));
    }
}

TEST_F(DiscDBLocksTest, AWriterThatIsKilledLeavesNoLockOnItsRecord)
{
    EXPECT_EQ(peer.ask("begin cl5 5"), "0");
    EXPECT_EQ(peer.ask("write theirs"), "1");
    EXPECT_EQ(peer.ask("persist"), "0");
    std::string payload;
    std::thread reader([&] {
        const auto record = Store::find(METADATA);
        payload = record ? read(*record) : "none";
    });
    EXPECT_TRUE(thisProcessWaits());
    peer.kill();
    reader.join();
    EXPECT_EQ(payload, "theirs");
    EXPECT_EQ(put({.payload = "ours"}), DS_SUCCESS);
}

TEST_F(DiscDBLocksTest, AWriterThatIsKilledWhileItWaitsLeavesTheRecord)
{
    put({.payload = "old"});
    auto kept = Store::find(METADATA);
    EXPECT_EQ(peer.ask("begin cl5 9"), "0");
    EXPECT_EQ(peer.ask("write new"), "1");
    peer.tell("persist");
    EXPECT_TRUE(peer.waits());
    peer.kill();
    EXPECT_EQ(read(*kept), "old");
    kept.reset();
    EXPECT_EQ(put({.payload = "ours"}), DS_SUCCESS);
    EXPECT_EQ(read(*Store::find(METADATA)), "ours");
}

TEST_F(DiscDBLocksTest, TwoProcessesThatWaitForEachOtherDoNotWaitForever)
{
    put({.subject = "a"});
    put({.subject = "b"});
    auto kept = Store::find("1 srv1 a.xml");
    ASSERT_TRUE(kept);
    EXPECT_EQ(find("1 srv1 b.xml"), "found payload");
    EXPECT_EQ(peer.ask("begin a 9"), "0");
    peer.tell("persist");
    EXPECT_TRUE(peer.waits());
    log.clear();
    FileLock::setWaitLimit(std::chrono::milliseconds(50));
    EXPECT_EQ(put({.subject = "b"}), DS_OPEN_FAILED);
    EXPECT_TRUE(log.has(1, "Unable to lock " + path("1 srv1 b.xml").string()));
    EXPECT_TRUE(log.has(1, "The cause: other processes had a lock on it for all of 50 ms"));
    kept.reset();
    EXPECT_EQ(peer.answer(), "0");
}

/// Several processes. This one has not opened the store yet.
struct DiscDBStartTest : testing::Test
{
    void SetUp() override
    {
        if (!QmTest::mayOpenRecords())
            GTEST_SKIP() << "records are created with permissions 0: needs root";
    }
    bool exists(const std::string& name) const
    {
        return std::filesystem::exists(directory.path() / name);
    }
    QmTest::StorePeer peer;
    QmTest::StorePeer second;
    QmTest::TemporaryDirectory directory;
    const std::string dir = directory.path().string();
    LogCapture log;
};

TEST_F(DiscDBStartTest, ASecondProcessStartingWhileTheFirstWritesDeletesNoTemporaryPayload)
{
    getDiscoveryDBDatabase()->init(dir);
    AutoDereference<Discovery> record(getDiscoveryDBDatabase()->newDiscovery(DQ_DISCOVERY_DATA));
    record->setSubject(new Subject("cl5"));
    record->setAuthority(new Authority("srv1", AT_QMKSERVER));
    ASSERT_EQ(record->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    EXPECT_EQ(peer.ask("init " + dir), "done, left 1");
    record.reset();
    EXPECT_EQ(second.ask("init " + dir), "done, left 0");
}

TEST_F(DiscDBStartTest, TheFirstOfTwoProcessesToFinishLeavesTheOthersPayloadSafe)
{
    EXPECT_EQ(peer.ask("init " + dir), "done, left 0");
    EXPECT_EQ(second.ask("init " + dir), "done, left 0");
    EXPECT_EQ(peer.ask("begin a 1"), "0");
    EXPECT_EQ(second.ask("begin b 1"), "0");
    EXPECT_EQ(second.ask("write theirs"), "1");
    EXPECT_EQ(peer.ask("persist"), "0");
    EXPECT_EQ(peer.ask("drop"), "done");
    getDiscoveryDBDatabase()->init(dir);
    EXPECT_EQ(log.texts(1), (Lines{"Unable to lock " + dir + "/Update.lock", BUSY}));
    EXPECT_TRUE(exists("1.updating"));
    EXPECT_EQ(second.ask("persist"), "0");
    EXPECT_EQ(second.ask("drop"), "done");
    EXPECT_EQ(peer.ask("find 1 srv1 b.xml"), "found theirs");
}

TEST_F(DiscDBStartTest, AProcessThatWasKilledLeavesNoLockAndItsPayloadIsCleanedUp)
{
    EXPECT_EQ(peer.ask("init " + dir), "done, left 0");
    EXPECT_EQ(peer.ask("begin cl5 1"), "0");
    EXPECT_EQ(peer.ask("write half"), "1");
    EXPECT_TRUE(exists("0.updating"));
    EXPECT_EQ(second.ask("clean " + dir), "0");
    peer.kill();
    EXPECT_EQ(second.ask("clean " + dir), "1");
    getDiscoveryDBDatabase()->init(dir);
    EXPECT_EQ(log.texts(1), Lines{"Deleting temporary file 0.updating"});
    EXPECT_FALSE(exists("0.updating"));
}

/// The payload and the metadata of each put have the same tag.
struct DiscDBStressTest : QmTest::Store
{
    void SetUp() override
    {
        Store::SetUp();
        if (!IsSkipped()) {
            ASSERT_EQ(writer.ask("init " + dir()), "done, left 0");
            ASSERT_EQ(reader.ask("init " + dir()), "done, left 0");
            ASSERT_EQ(putStamped({.number = 10}), DS_SUCCESS);
        }
    }
    /// Two threads put and two read, while this thread does the work.
    void threads(int puts, const std::function<void()>& work)
    {
        std::atomic<int> writing{2};
        const auto write = [&](long first) {
            for (long number = first; number < first + puts; ++number)
                failed += putStamped({.number = number}) != DS_SUCCESS;
            --writing;
        };
        // A reader's lock keeps other processes out. But a thread of the reader's process may
        // replace the payload between the two reads. The reader still gets complete data.
        const auto check = [&] {
            do {
                broken += stampsOf("cl5").find_first_not_of("0123456789/") != std::string::npos;
            } while (writing > 0);
        };
        std::thread all[] = {std::thread(write, 100), std::thread(write, 200), std::thread(check),
                             std::thread(check)};
        work();
        for (std::thread& thread : all)
            thread.join();
        EXPECT_EQ(failed, 0);
        EXPECT_EQ(broken, 0);
        EXPECT_TRUE(QmTest::isWholeState(stampsOf("cl5"))) << stampsOf("cl5");
        EXPECT_EQ(files(), (Lines{PAYLOAD, METADATA, "Update.lock"}));
    }
    QmTest::StorePeer writer; // forked before this process opens anything
    QmTest::StorePeer reader;
    LogCapture log;
    std::atomic<int> failed{0};
    std::atomic<int> broken{0};
};

TEST_F(DiscDBStressTest, APersistAndALoadOfOneRecordNeverMixInOneProcess)
{
    threads(100, [] {});
}

TEST_F(DiscDBStressTest, APersistAndALoadOfOneRecordNeverMixBetweenProcesses)
{
    threads(40, [&] {
        writer.tell("storm 40 300");
        reader.tell("watch 100");
        EXPECT_EQ(writer.answer(), "0");
        EXPECT_EQ(reader.answer(), "0");
    });
}

TEST_F(DiscDBStressTest, WritersAndExpiryOfOneRecordLoseNone)
{
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::thread looking([&] {
        while (!stop)
            all();
    });
    for (int i = 0; i < 100; ++i) {
        // The record has expired at once: the clock is at 1000 and the expiry time is 995.
        if (put({.timeToLive = -4}) != DS_SUCCESS)
            ++wrong;
        if (put({.subject = "cl6", .payload = "stays"}) != DS_SUCCESS)
            ++wrong;
        const auto record = find("1 srv1 cl6.xml");
        if (!record || read(*record) != "stays")
            ++wrong;
    }
    stop = true;
    looking.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(all(), Lines{"cl6"});
    EXPECT_FALSE(std::filesystem::exists(path(METADATA)));
}

TEST_F(DiscDBStressTest, AThreadMayPersistARecordThatItHasFound)
{
    ASSERT_EQ(put({.payload = "old"}), DS_SUCCESS);
    const auto found = find(METADATA);
    ASSERT_TRUE(found);
    EXPECT_EQ(put({.payload = "new"}), DS_SUCCESS);
    EXPECT_EQ(read(*found), "new");
}

TEST_F(DiscDBStressTest, TwoThreadsMayEachPersistTheRecordThatTheOtherKeeps)
{
    ASSERT_EQ(put({.subject = "a"}), DS_SUCCESS);
    ASSERT_EQ(put({.subject = "b"}), DS_SUCCESS);
    const auto first = find("1 srv1 a.xml");
    const auto second = find("1 srv1 b.xml");
    std::thread one([] { EXPECT_EQ(put({.subject = "b", .payload = "new b"}), DS_SUCCESS); });
    std::thread two([] { EXPECT_EQ(put({.subject = "a", .payload = "new a"}), DS_SUCCESS); });
    one.join();
    two.join();
    EXPECT_EQ(read(*first), "new a");
    EXPECT_EQ(read(*second), "new b");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
