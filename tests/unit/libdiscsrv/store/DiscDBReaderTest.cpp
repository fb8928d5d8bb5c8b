// Each test reads and lists records between the file operations of a process that works on the
// store.

#include "CrashSequences.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <thread>

#include <unistd.h>

#include "SleepingThread.h"
#include "StorePeer.h"
#include "support/Eventually.h"

namespace QmTest {
namespace {

/// Another thread of the process. It reads the store when it is asked.
class Reader
{
  public:
    explicit Reader(Player& player) : m_player(player), m_thread([this] { serve(); }) {}
    ~Reader()
    {
        change(m_isEnding, true);
        m_thread.join();
    }

    /// Asks for a look. One is enough for several requests.
    void request() { change(m_isAsked, true); }
    /// Waits until the looks that were asked for are over.
    bool isDone()
    {
        std::unique_lock guard(m_mutex);
        return m_changed.wait_for(guard, PATIENCE, [this] { return !m_isAsked && !m_isLooking; });
    }
    /// Waits until that, or until the look waits for something.
    bool isDoneOrWaits()
    {
        return eventually([this] {
            const std::lock_guard guard(m_mutex);
            return m_isLooking ? isAsleep(m_threadId) : !m_isAsked;
        });
    }

  private:
    void change(bool& what, bool value)
    {
        const std::lock_guard guard(m_mutex);
        what = value;
        m_changed.notify_all();
    }
    void serve()
    {
        PlayedFileSystem::exemptThread(true);
        m_threadId = ::gettid();
        for (;;) {
            {
                std::unique_lock guard(m_mutex);
                m_changed.wait(guard, [this] { return m_isAsked || m_isEnding; });
                if (!m_isAsked)
                    return;
                m_isAsked = false;
                m_isLooking = true;
            }
            look();
            change(m_isLooking, false);
        }
    }
    void look()
    {
        const std::set<std::string> before = listedSubjects();
        const std::string state = stampsOf("cl5");
        const std::string other = stampsOf(OTHER.subject);
        const bool isListed = listedSubjects().contains("cl5");
        // A record may come or go between the three looks.
        const bool differs = isListed == before.contains("cl5") && isListed != (state != "none");
        m_player.note("found " + state + (differs ? " differs" : "") +
                      (other == wholeState(OTHER.number) ? "" : " spoilt"));
    }

    Player& m_player;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isAsked = false;
    bool m_isLooking = false;
    bool m_isEnding = false;
    std::atomic<pid_t> m_threadId{0};
    std::thread m_thread;
};

/// Whether the writer is inside the gate of the metadata file. The reader waits for its end there.
bool isInGate(const DiskOperation& next)
{
    const bool isMetadata = next.path.ends_with(".xml");
    return next.kind == DiskOperation::RESERVE || next.kind == DiskOperation::RESIZE ||
           (next.kind == DiskOperation::WRITE && isMetadata) ||
           (next.kind == DiskOperation::UNLINK && !next.path.ends_with(".updating"));
}

struct DiscDBReaderTest : CrashPlay
{
    /// What a reader finds during the work, at each operation.
    std::set<std::string> readDuring(const Sequence& sequence)
    {
        Sequence watched = sequence;
        watched.work = [&](Player& player) {
            Reader reader(player);
            player.files().setHook([&](const DiskOperation& next) {
                reader.request();
                if (!(isInGate(next) ? reader.isDoneOrWaits() : reader.isDone()))
                    player.note("found nothing: the reader waits");
            });
            sequence.work(player);
            player.files().setHook({});
        };
        fill(watched);
        EXPECT_EQ(run(watched, {}), FINISHED);
        std::set<std::string> found;
        for (const DiskOperation& note : workOperations())
            if (note.kind == DiskOperation::NOTE && note.path.starts_with("found "))
                found.insert(note.path.substr(6));
        return found;
    }
};

using Found = std::set<std::string>;

TEST_F(DiscDBReaderTest, AReaderOfANewRecordFindsItsMetadataFirst)
{
    EXPECT_EQ(readDuring(FIRST_PUT), (Found{"none", "2/missing", "2/2"}));
}

TEST_F(DiscDBReaderTest, AReaderOfAReplacedRecordAlwaysFindsAWholePayload)
{
    EXPECT_EQ(readDuring(SAME_LENGTH_PUT), (Found{"1/1", "2/1", "2/2"}));
    EXPECT_EQ(readDuring(LONGER_PUT), (Found{"1/1", "2/1", "2/2"}));
    EXPECT_EQ(readDuring(SHORTER_PUT), (Found{"1/1", "2/1", "2/2"}));
}

TEST_F(DiscDBReaderTest, AReaderNeverFindsARefusedOrAbandonedPut)
{
    EXPECT_EQ(readDuring(REFUSED_PUT), (Found{"1/1", "3/1", "3/3"}));
    EXPECT_EQ(readDuring(GIVEN_UP_PUT), Found{"1/1"});
}

TEST_F(DiscDBReaderTest, AReaderNeverFindsAnExpiredRecord)
{
    EXPECT_EQ(readDuring(EXPIRY), Found{"none"});
    EXPECT_EQ(readDuring(PUT_AFTER_EXPIRY), (Found{"none", "2/missing", "2/2"}));
}

TEST_F(DiscDBReaderTest, ACleanUpDoesNotDisturbReaders)
{
    Sequence cleanUp = CLEAN_UP;
    cleanUp.starts = false; // a reader needs a store that is open
    cleanUp.work = [](Player& player) { Disc::DiscoveryDBCreator().init(player.store()); };
    EXPECT_EQ(readDuring(cleanUp), Found{"1/1"});
}

TEST_F(DiscDBReaderTest, TwoPutsOfOneRecordLeaveNoOtherMixture)
{
    for (const std::string& found : readDuring(TWO_PUTS))
        EXPECT_TRUE(found.size() == 3 && found[1] == '/') << found;
}

/// Between processes the lock keeps readers away until the put is over.
TEST_F(DiscDBReaderTest, AReaderInAnotherProcessFindsTheOldRecordOrTheNewOne)
{
    const auto refused = std::make_shared<RefusedLocks>();
    PeerProcess peer([refused, isStarted = false](const std::string& store) mutable {
        if (!isStarted) {
            Tlx::LoggerFactory::instance().setLevel(0);
            Tlx::FileSystem::replace(refused.get());
            Disc::getDiscoveryDBDatabase()->init(store);
        }
        isStarted = true;
        return stampsOf("cl5") + (listedSubjects().contains("cl5") ? "" : " not listed");
    });
    const auto answersOrWaits = [&] {
        const unsigned before = refused->count();
        return eventually([&] {
            return peer.answers(std::chrono::milliseconds(0)) || refused->count() > before + 1;
        });
    };
    Found found;
    unsigned at = 1;
    for (bool isOver = false; !isOver; ++at) {
        Sequence watched = LONGER_PUT;
        watched.work = [&](Player& player) {
            unsigned count = 0;
            player.files().setHook([&](const DiskOperation&) {
                if (++count != at)
                    return;
                peer.tell(player.store());
                (void)answersOrWaits();
            });
            LONGER_PUT.work(player);
            player.files().setHook({});
            player.note(count < at ? "over the end" : "found " + peer.answer());
        };
        fill(watched);
        ASSERT_EQ(run(watched, {}), FINISHED);
        for (const DiskOperation& note : workOperations()) {
            isOver = isOver || note.path == "over the end";
            if (note.kind == DiskOperation::NOTE && note.path.starts_with("found "))
                found.insert(note.path.substr(6));
        }
        ASSERT_LT(at, 100u);
    }
    EXPECT_GT(at, 10u);
    EXPECT_EQ(found, (Found{"1/1", "2/2"}));
}

} // namespace
} // namespace QmTest
