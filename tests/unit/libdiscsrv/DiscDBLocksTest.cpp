// The store's locks: two threads, and two processes.

#include "DiscDB.h"

#include <atomic>
#include <thread>

#include "Capture.h"
#include "StorePeer.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::contentOf;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::writeFile;

constexpr const char* METADATA = "1 srv1 cl5.xml";
constexpr int SHORTLY = 300; // milliseconds in which a lock that is free would have been granted

struct DiscDBLocksTest : QmTest::Store
{
    void SetUp() override
    {
        Store::SetUp();
        if (!IsSkipped())
            initialised = peer.ask("init " + dir());
    }
    QmTest::StorePeer peer; // forked before this process opens anything
    std::string initialised;
};

TEST_F(DiscDBLocksTest, ASecondProcessReadsWhatTheFirstWrote)
{
    EXPECT_EQ(put({.payload = "from here"}), DS_SUCCESS);
    EXPECT_EQ(peer.ask(std::string("find ") + METADATA), "found from here");
}

TEST_F(DiscDBLocksTest, TheFirstOfTwoWritersToFinishKeepsTheOthersHoldOnUpdateLock)
{
    auto first = make({.subject = "a"});
    auto second = make({.subject = "b"});
    ASSERT_EQ(first->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    ASSERT_EQ(second->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    EXPECT_EQ(first->persist().discStatus, DS_SUCCESS);
    first.reset();
    // A process that starts now must leave the other's payload alone.
    QmTest::StorePeer& late = peer;
    EXPECT_TRUE(std::filesystem::exists(path("1.updating")));
    EXPECT_EQ(late.ask(std::string("find ") + METADATA), "none");
    const auto probe = FileLock::open(path("Update.lock").string(), O_RDWR);
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->tryacquire_write(), -1);
    EXPECT_EQ(second->persist().discStatus, DS_SUCCESS);
    EXPECT_EQ(probe->tryacquire_write(), 0);
}

struct DiscDBStartTest : testing::Test
{
    QmTest::StorePeer peer;
    QmTest::TemporaryDirectory directory;
};

TEST_F(DiscDBStartTest, ASecondProcessStartingWhileTheFirstWritesDeletesNoTemporaryPayload)
{
    if (!QmTest::mayOpenRecords())
        GTEST_SKIP() << "records are created with permissions 0: needs root";
    const std::string dir = directory.path().string();
    getDiscoveryDBDatabase()->init(dir);
    AutoDereference<Discovery> record(getDiscoveryDBDatabase()->newDiscovery(DQ_DISCOVERY_DATA));
    record->setSubject(new Subject("cl5"));
    record->setAuthority(new Authority("srv1", AT_QMKSERVER));
    ASSERT_EQ(record->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    EXPECT_EQ(peer.ask("init " + dir), "done, left 1");
    record.reset();
}

TEST_F(DiscDBStartTest, AProcessThatWasKilledLeavesNoLockAndItsPayloadIsCleanedUp)
{
    if (!QmTest::mayOpenRecords())
        GTEST_SKIP() << "records are created with permissions 0: needs root";
    const std::string dir = directory.path().string();
    EXPECT_EQ(peer.ask("init " + dir), "done, left 0");
    EXPECT_EQ(peer.ask("begin cl5 1"), "0");
    EXPECT_EQ(peer.ask("write half"), "1");
    EXPECT_TRUE(std::filesystem::exists(directory.path() / "0.updating"));
    peer.kill();
    getDiscoveryDBDatabase()->init(dir);
    EXPECT_FALSE(std::filesystem::exists(directory.path() / "0.updating"));
}

TEST_F(DiscDBLocksTest, ALookupKeepsTheReadLockOfAnotherIterator)
{
    put({});
    const auto kept = find(METADATA);
    ASSERT_TRUE(kept);
    ASSERT_TRUE(find(METADATA)); // opened, read and closed beside it
    EXPECT_EQ(peer.ask("begin cl5 9"), "0");
    peer.tell("persist");
    EXPECT_FALSE(peer.answers(SHORTLY)) << "the other process wrote under our read lock";
}

TEST_F(DiscDBLocksTest, AWriterGoesOnWhenTheOtherProcessReleasesItsRecord)
{
    put({.payload = "old"});
    auto kept = find(METADATA);
    ASSERT_TRUE(kept);
    EXPECT_EQ(peer.ask("begin cl5 9"), "0");
    EXPECT_EQ(peer.ask("write new"), "1");
    peer.tell("persist");
    EXPECT_FALSE(peer.answers(SHORTLY));
    EXPECT_EQ(read(*kept), "old");
    kept.reset();
    EXPECT_EQ(peer.answer(), "0");
    EXPECT_EQ(peer.ask("drop"), "done");
    EXPECT_EQ(read(*find(METADATA)), "new");
}

TEST_F(DiscDBLocksTest, ThePriorityIsLookedAtAgainUnderTheWriteLock)
{
    const auto lower = make({.priority = 4});
    ASSERT_EQ(lower->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    EXPECT_EQ(peer.ask("begin cl5 5"), "0");
    EXPECT_EQ(peer.ask("write five"), "1");
    EXPECT_EQ(peer.ask("persist"), "0"); // and keeps its write lock
    std::string result;
    LogCapture log;
    std::thread writer([&] { result = std::to_string(lower->persist().discStatus); });
    EXPECT_EQ(peer.ask("drop"), "done");
    writer.join();
    EXPECT_EQ(result, std::to_string(DS_DATA_EXISTS));
    EXPECT_TRUE(log.has(1, "Cannot persist, data with higher priority already exists."));
    EXPECT_EQ(contentOf(path("1 srv1 cl5.dat")), "five");
}

TEST_F(DiscDBLocksTest, AnExpiredRecordThatAnotherProcessReadsStays)
{
    put({.timeToLive = 100});
    EXPECT_EQ(peer.ask("now 1000"), "done");
    EXPECT_EQ(peer.ask(std::string("find ") + METADATA), "found payload");
    setNow(2000);
    LogCapture log;
    EXPECT_FALSE(find(METADATA));
    EXPECT_EQ(log.texts(1), (Lines{path(METADATA).string() + " has expired",
                                   "Unable to upgrade lock to expire file, errno: 16",
                                   path(METADATA).string() + " could not be expired"}));
    EXPECT_EQ(peer.ask("release"), "done");
    EXPECT_FALSE(find(METADATA));
    EXPECT_FALSE(std::filesystem::exists(path(METADATA)));
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
        all(); // removes the expired record, or finds the new one
        ASSERT_EQ(peer.answer(), "0");
        ASSERT_EQ(peer.ask("drop"), "done");
        const auto found = find(METADATA);
        ASSERT_TRUE(found) << "round " << round;
        ASSERT_EQ(read(*found), "new");
        ASSERT_EQ(found->getAttributes()->getPriority(), 9u);
        std::filesystem::remove(path(METADATA));
        std::filesystem::remove(path("1 srv1 cl5.dat"));
    }
}

/// Every writer's payload repeats the priority that its metadata tells; what is read must be one
/// writer's, whole.
struct DiscDBThreadsTest : QmTest::Store
{
    static std::string payloadOf(unsigned priority)
    {
        return std::string(5000, static_cast<char>('a' + priority % 26));
    }
};

TEST_F(DiscDBThreadsTest, APersistAndALoadOfOneRecordNeverMix)
{
    constexpr int ROUNDS = 150;
    ASSERT_EQ(put({.priority = 0, .payload = payloadOf(0)}), DS_SUCCESS);
    std::atomic<int> writing{2};
    std::atomic<int> wrong{0};
    std::atomic<unsigned> priority{1};
    const auto write = [&] {
        for (int i = 0; i < ROUNDS; ++i) {
            const unsigned mine = priority++;
            const DiscoveryStatus status = put({.priority = mine, .payload = payloadOf(mine)});
            if (status != DS_SUCCESS && status != DS_DATA_EXISTS)
                ++wrong;
        }
        --writing;
    };
    const auto check = [&] {
        while (writing > 0) {
            const auto record = find(METADATA);
            const std::string payload = record ? read(*record) : "";
            if (payload.size() != 5000 || payload.find_first_not_of(payload[0]) != payload.npos)
                ++wrong;
        }
    };
    std::thread threads[] = {std::thread(write), std::thread(write), std::thread(check),
                             std::thread(check)};
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    const auto record = find(METADATA);
    ASSERT_TRUE(record);
    EXPECT_EQ(read(*record), payloadOf(record->getAttributes()->getPriority()));
}

TEST_F(DiscDBThreadsTest, WritersAndExpiryOfOneRecordLoseNone)
{
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::thread looking([&] {
        while (!stop)
            all();
    });
    for (int i = 0; i < 100; ++i) {
        // Over at once: the clock stands at 1000 and the record's time at 995.
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

TEST_F(DiscDBThreadsTest, AThreadMayPersistARecordThatItHasFound)
{
    ASSERT_EQ(put({.payload = "old"}), DS_SUCCESS);
    const auto found = find(METADATA);
    ASSERT_TRUE(found);
    EXPECT_EQ(put({.payload = "new"}), DS_SUCCESS);
    EXPECT_EQ(read(*found), "new");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
