// Each test kills a process that works on the store, at each of its file operations in turn. After
// each kill a fresh process
//
//   - finds the record in one of the states that the order of writing allows, in that order,
//   - finds every other record unchanged,
//   - can write the record again.
//
// The states of a record "old" (priority 1) that "new" (priority 2) replaces:
//
//     last operation              metadata                payload   a lookup finds
//     ------------------------    --------------------    -------   -------------------------
//     any before the next         old                     old       old, 1
//     write of the document       new, with the tail      old       old, 2; nothing when the old
//                                 of a longer old one               document was longer
//     its cut to length           new                     old       old, 2
//     rename of the payload       new                     new       new, 2
//
// The states of a record that is new: nothing (the metadata file may exist and be empty), then 2
// that refuses to be read, then new, 2.
//
// A torn write leaves the beginning of the new document and the rest of the old one. The result is
// the old record, or the new metadata with the old payload, or no document. A lookup skips a file
// without a document, and a put replaces it.

#include "DiscDB.h"

#include <functional>
#include <map>

#include <gmock/gmock.h>

#include "SteppedProcess.h"
#include "StorePeer.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::contentOf;
using QmTest::Lines;
using QmTest::METADATA;
using QmTest::PAYLOAD;
using QmTest::RecordOf;
using QmTest::SteppedProcess;
using QmTest::writeFile;

constexpr unsigned MANY = 500; ///< more operations than any test here makes

const RecordOf OTHER = {.subject = "other", .payload = "the other one"};
const RecordOf OLD = {.priority = 1, .payload = "old"};
const RecordOf NEW = {.priority = 2, .payload = "new"};

/// Only child processes use the store, so none inherits a state of it.
struct DiscDBCrashTest : QmTest::Store
{
    void SetUp() override
    {
        if (!QmTest::mayOpenRecords())
            GTEST_SKIP() << "records are created with permissions 0: needs root";
        if (SteppedProcess::run([] {}, [] { return true; }) == SteppedProcess::CANNOT_TRACE)
            GTEST_SKIP() << "a process cannot be traced here";
    }

    /// A child process puts records and ends in order. The fixture keeps the files for restore.
    void fill(const std::vector<RecordOf>& records)
    {
        m_filled.clear();
        restore();
        ASSERT_EQ(SteppedProcess::run([] {},
                                      [&] {
                                          start();
                                          for (const RecordOf& record : records)
                                              if (put(record) != DS_SUCCESS)
                                                  return false;
                                          return true;
                                      }),
                  SteppedProcess::ENDED);
        for (const std::string& name : files())
            m_filled[name] = contentOf(path(name));
    }
    void restore() const
    {
        for (const std::string& name : files())
            std::filesystem::remove(path(name));
        for (const auto& [name, content] : m_filled)
            writeFile(path(name), content);
    }
    void start(long now = 1000) const
    {
        setNow(now);
        getDiscoveryDBDatabase()->init(dir());
    }

    /// The lookup's result in a new process.
    static std::string lookUp(QmTest::StorePeer& peer)
    {
        const std::string found = peer.ask(std::string("find ") + METADATA);
        return found == "none" ? found : found + ", priority " + peer.ask("priority");
    }
    /// Expects that the other record is whole, that the record can be written again, and that no
    /// other file is left.
    void expectUsable(QmTest::StorePeer& peer) const
    {
        EXPECT_EQ(contentOf(path("1 srv1 other.xml")), m_filled.at("1 srv1 other.xml"));
        EXPECT_EQ(contentOf(path("1 srv1 other.dat")), m_filled.at("1 srv1 other.dat"));
        EXPECT_EQ(peer.ask("release"), "done");
        EXPECT_EQ(peer.ask("begin cl5 9"), std::to_string(DS_SUCCESS));
        EXPECT_EQ(peer.ask("write again"), "1");
        EXPECT_EQ(peer.ask("persist"), std::to_string(DS_SUCCESS));
        EXPECT_EQ(peer.ask("drop"), "done");
        EXPECT_EQ(lookUp(peer), "found again, priority 9");
        EXPECT_EQ(files(), (Lines{PAYLOAD, METADATA, "1 srv1 other.dat", "1 srv1 other.xml",
                                  "Update.lock"}));
    }

    using Work = std::function<bool()>;
    using Look = std::function<std::string(QmTest::StorePeer&)>;

    /// Kills the work at each of its operations. Returns what look() finds after each, without
    /// repetitions.
    /// @param eighths 0 to kill before each operation, otherwise in the middle of each write.
    Lines crashEverywhere(const Work& prepare, const Work& work, const Look& look,
                          unsigned eighths = 0) const
    {
        Lines states;
        for (unsigned at = 1; at < MANY; ++at) {
            SCOPED_TRACE("killed at operation " + std::to_string(at));
            restore();
            const SteppedProcess::Outcome outcome =
                SteppedProcess::run([&] { prepare(); }, work, {at, eighths});
            EXPECT_TRUE(outcome == SteppedProcess::KILLED || outcome == SteppedProcess::ENDED)
                << outcome;
            QmTest::StorePeer peer;
            const std::string state = look(peer);
            if (states.empty() || states.back() != state)
                states.push_back(state);
            expectUsable(peer);
            if (HasFailure() || outcome != SteppedProcess::KILLED)
                return states;
        }
        ADD_FAILURE() << "the work never ended";
        return states;
    }
    Lines crashAPut(const RecordOf& record, unsigned eighths = 0) const
    {
        const auto prepare = [&] {
            start();
            return true;
        };
        const auto work = [&] { return put(record) == DS_SUCCESS; };
        const auto look = [&](QmTest::StorePeer& peer) {
            EXPECT_EQ(peer.ask("now 1000"), "done");
            EXPECT_EQ(peer.ask("init " + dir()), "done, left 0");
            return lookUp(peer);
        };
        return crashEverywhere(prepare, work, look, eighths);
    }

  private:
    std::map<std::string, std::string> m_filled;
};

TEST_F(DiscDBCrashTest, ANewRecordIsThereWithItsPayloadOrNot)
{
    fill({OTHER});
    EXPECT_EQ(crashAPut(NEW),
              (Lines{"none", "found, unreadable, priority 2", "found new, priority 2"}));
}

TEST_F(DiscDBCrashTest, AReplacedRecordGoesThroughTheStatesOfTheTable)
{
    fill({OTHER, OLD});
    EXPECT_EQ(crashAPut(NEW),
              (Lines{"found old, priority 1", "found old, priority 2", "found new, priority 2"}));
}

TEST_F(DiscDBCrashTest, AReplacedRecordWithALongerDocumentIsNotFoundUntilItIsCut)
{
    fill({OTHER, {.priority = 1, .timeToLive = 100, .payload = "old"}});
    EXPECT_EQ(crashAPut(NEW), (Lines{"found old, priority 1", "none", "found old, priority 2",
                                     "found new, priority 2"}));
}

TEST_F(DiscDBCrashTest, AReplacedRecordWithAShorterDocumentGoesThroughTheStatesOfTheTable)
{
    fill({OTHER, OLD});
    EXPECT_EQ(crashAPut({.priority = 2, .timeToLive = 100, .payload = "new"}),
              (Lines{"found old, priority 1", "found old, priority 2", "found new, priority 2"}));
}

TEST_F(DiscDBCrashTest, ATornWriteOfANewRecordLeavesNoRecord)
{
    fill({OTHER});
    for (unsigned eighths = 1; eighths < 8; ++eighths) {
        SCOPED_TRACE(eighths);
        EXPECT_EQ(crashAPut(NEW, eighths), (Lines{"none", "found new, priority 2"}));
    }
}

TEST_F(DiscDBCrashTest, ATornWriteOfAReplacedRecordLeavesTheOldPayloadOrNoDocument)
{
    for (const long timeToLive : {0, 100})
        for (unsigned eighths = 1; eighths < 8; ++eighths) {
            SCOPED_TRACE(testing::Message() << timeToLive << ", " << eighths);
            fill({OTHER, {.priority = 1, .timeToLive = timeToLive, .payload = "old"}});
            const Lines states = crashAPut(NEW, eighths);
            ASSERT_GE(states.size(), 2u);
            EXPECT_EQ(states.front(), "found old, priority 1"); // the payload is written first
            EXPECT_EQ(states.back(), "found new, priority 2");
            for (std::size_t i = 1; i + 1 < states.size(); ++i)
                EXPECT_THAT(states[i], testing::AnyOf("none", "found old, priority 2"));
        }
}

TEST_F(DiscDBCrashTest, AnExpiredRecordLosesItsPayloadFirstAndIsRemovedByTheNextLookup)
{
    fill({OTHER, {.timeToLive = 100}});
    const auto prepare = [&] {
        start(2000);
        return true;
    };
    const auto work = [&] { return !find(METADATA); };
    const auto look = [&](QmTest::StorePeer& peer) {
        std::string left;
        for (const std::string& name : files())
            if (name == METADATA || name == PAYLOAD)
                left += name + ";";
        EXPECT_EQ(peer.ask("now 2000"), "done");
        EXPECT_EQ(peer.ask("init " + dir()), "done, left 0");
        EXPECT_EQ(lookUp(peer), "none");
        EXPECT_FALSE(std::filesystem::exists(path(METADATA)));
        EXPECT_FALSE(std::filesystem::exists(path(PAYLOAD)));
        return left;
    };
    EXPECT_EQ(crashEverywhere(prepare, work, look),
              (Lines{"1 srv1 cl5.dat;1 srv1 cl5.xml;", "1 srv1 cl5.xml;", ""}));
}

TEST_F(DiscDBCrashTest, ACleanUpThatDiedIsFinishedByTheNext)
{
    fill({OTHER, OLD});
    const auto prepare = [&] {
        for (const char* name : {"0.updating", "1.updating"})
            writeFile(path(name), "given up");
        return true;
    };
    const auto work = [&] {
        start();
        return true;
    };
    const auto look = [&](QmTest::StorePeer& peer) {
        const Lines names = files();
        const auto left = std::count_if(names.begin(), names.end(), [](const std::string& name) {
            return name.ends_with(".updating");
        });
        EXPECT_EQ(peer.ask("now 1000"), "done");
        EXPECT_EQ(peer.ask("init " + dir()), "done, left 0");
        EXPECT_EQ(lookUp(peer), "found old, priority 1");
        return std::to_string(left);
    };
    EXPECT_EQ(crashEverywhere(prepare, work, look), (Lines{"2", "1", "0"}));
}

/// After a kill the kernel still has all written data. A power cut loses what was not synced, so
/// the places of the syncs matter.
TEST_F(DiscDBCrashTest, EachSyncStandsWhereAPowerCutNeedsIt)
{
    fill({OTHER, OLD});
    Lines operations;
    ASSERT_EQ(
        SteppedProcess::trace([&] { start(); }, [&] { return put(NEW) == DS_SUCCESS; }, operations),
        SteppedProcess::ENDED);
    const std::string metadata = METADATA;
    const std::string directory = std::filesystem::path(dir()).filename().string();
    EXPECT_EQ(operations, (Lines{"write 0.updating", "fsync 0.updating", "fallocate " + metadata,
                                 "write " + metadata, "ftruncate " + metadata, "fsync " + metadata,
                                 "rename", "fsync " + directory}));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
