// The writers that clients hold: how many a peer may have, and when one is given up.

#include "OpenObjects.h"

#include <algorithm>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <sched.h>

#include <gtest/gtest.h>

#include "OpenObjectsFixture.h"
#include "RemoteWriter_i.h"
#include "support/Capture.h"
#include "support/Eventually.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {
namespace {

using namespace std::chrono_literals;
using QmTest::counter;
using QmTest::eventually;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::named;

/// How many writers each of so many greedy peers gets. They take turns, or come one after another.
std::vector<std::size_t> greedy(std::size_t peers, bool inTurn, const OpenLimits& limits)
{
    std::vector<std::size_t> held(peers, 0);
    std::size_t open = 0;
    const auto takes = [&](std::size_t peer) {
        if (!mayOpenWriter(held[peer], open, limits))
            return false;
        ++held[peer];
        ++open;
        return true;
    };
    bool any = inTurn;
    while (any) {
        any = false;
        for (std::size_t peer = 0; peer < peers; ++peer)
            any |= takes(peer);
    }
    for (std::size_t peer = 0; peer < peers; ++peer)
        while (takes(peer)) {
        }
    return held;
}

using Shares = std::vector<std::size_t>;

TEST(WriterShareTest, APeerAloneReachesItsBound)
{
    EXPECT_EQ(greedy(1, true, {0, 0, 250, 0s}), Shares{250});
    EXPECT_EQ(greedy(1, true, {0, 0, 1, 0s}), Shares{1});
    EXPECT_EQ(greedy(1, true, {0, 0, 500, 0s}), Shares{500});
    EXPECT_EQ(greedy(1, true, {0, 0, 999, 0s}), Shares{999});
    EXPECT_EQ(greedy(1, true, {0, 0, 1000, 0s}), Shares{1000});
}

TEST(WriterShareTest, GreedyPeersLeaveAPartOfTheNames)
{
    const OpenLimits limits{0, 0, 250, 0s};
    EXPECT_EQ(greedy(4, true, limits), (Shares{143, 143, 143, 143}));
    EXPECT_EQ(greedy(4, false, limits), (Shares{250, 188, 141, 106}));
    EXPECT_EQ(greedy(9, true, limits), (Shares{84, 84, 84, 84, 83, 83, 83, 83, 83}));
    EXPECT_EQ(greedy(9, false, limits), (Shares{250, 188, 141, 106, 79, 59, 45, 33, 25}));
}

TEST(WriterShareTest, APeerWithoutWritersGetsTheLastName)
{
    const OpenLimits limits{0, 0, 250, 0s};
    EXPECT_TRUE(mayOpenWriter(0, 999, limits));
    EXPECT_FALSE(mayOpenWriter(1, 999, limits));
    EXPECT_FALSE(mayOpenWriter(0, 1000, limits));
}

struct OpenWritersTest : QmTest::Registry
{
    void SetUp() override
    {
        if (!QmTest::mayOpenRecords())
            GTEST_SKIP() << "records are created with permissions 0: needs root";
    }
};

TEST_F(OpenWritersTest, BeyondItsShareAPeerGetsNoWriter)
{
    limit({10, 10, 2, 0s});
    const RemoteWriter_var first = writer("cl1", "192.0.2.1");
    const RemoteWriter_var second = writer("cl2", "192.0.2.1");
    const LogCapture log;
    const RemoteWriter_var third = writer("cl3", "192.0.2.1", DS_OPEN_FAILED);
    EXPECT_TRUE(CORBA::is_nil(third));
    EXPECT_FALSE(hasPayload(2));
    EXPECT_EQ(log.texts(1),
              Lines{"Refused a writer of subject cl3 & authority srv1: peer 192.0.2.1 "
                    "has 2 open writers (MAX_WRITERS_PER_PEER)"});
    EXPECT_EQ(counter("writersRefused"), 1u);
    const RemoteWriter_var other = writer("cl3", "192.0.2.2");
    EXPECT_EQ(first->close().discStatus, DS_SUCCESS);
    const RemoteWriter_var again = writer("cl4", "192.0.2.1");
    EXPECT_EQ(openObjects().writersOpen(), 3u);
    EXPECT_EQ(counter("writersOpen"), 3u);
    EXPECT_EQ(counter("writersHighest"), 3u);
}

TEST_F(OpenWritersTest, BeyondItsShareOfTheFreeNamesAPeerGetsNoWriter)
{
    limit({10, 10, 3, 0s, 6});
    const unsigned long long before = counter("writersCrowdedOut");
    const RemoteWriter_var one = writer("cl1", "192.0.2.1");
    const RemoteWriter_var two = writer("cl2", "192.0.2.1");
    const RemoteWriter_var three = writer("cl3", "192.0.2.1");
    const RemoteWriter_var four = writer("cl4", "192.0.2.2");
    const LogCapture log;
    const RemoteWriter_var five = writer("cl5", "192.0.2.2");
    EXPECT_EQ(log.texts(1), Lines{});
    writer("cl6", "192.0.2.2", DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1),
              Lines{"Refused a writer of subject cl6 & authority srv1: peer 192.0.2.2 has 2 open "
                    "writers, and all together have 5 of 6 (MAX_WRITERS_PER_PEER)"});
    EXPECT_EQ(counter("writersCrowdedOut"), before + 1);
    const RemoteWriter_var other = writer("cl6", "192.0.2.3");
    EXPECT_EQ(openObjects().writersOpen(), 6u);
}

TEST_F(OpenWritersTest, AWriterThatDoesNotOpenCountsNoLonger)
{
    limit({10, 10, 1, 0s});
    writer("", "192.0.2.1", DS_OPEN_FAILED);
    EXPECT_EQ(openObjects().writersOpen(), 0u);
    const RemoteWriter_var held = writer("cl1", "192.0.2.1");
    EXPECT_FALSE(CORBA::is_nil(held));
}

TEST_F(OpenWritersTest, OneHundredAndFiveHundredWritersAreWorthAWarning)
{
    limit({10, 10, 1000, 0s});
    std::vector<RemoteWriter_var> held;
    const auto open = [&](unsigned count) {
        while (held.size() < count)
            held.emplace_back(writer("cl" + std::to_string(held.size()), "192.0.2.1"));
    };
    const LogCapture log;
    const auto warnings = [&log] {
        Lines lines = log.texts(1);
        std::erase_if(lines, [](const std::string& line) {
            return line.find(" writers are open; ") == std::string::npos;
        });
        return lines;
    };
    open(99);
    EXPECT_EQ(warnings(), Lines{});
    open(101);
    EXPECT_EQ(warnings(), Lines{"100 writers are open; the last one belongs to peer 192.0.2.1, "
                                "which has 100"});
    held.back()->close();
    held.pop_back();
    open(499);
    EXPECT_EQ(warnings().size(), 1u) << "only on the way up, at the number itself";
    open(500);
    EXPECT_EQ(warnings().size(), 2u);
}

TEST_F(OpenWritersTest, AWriterThatNobodyTouchesIsGivenUp)
{
    limit({10, 10, 10, 86400s});
    const RemoteWriter_var idle = writer("cl1", "192.0.2.1");
    EXPECT_EQ(service.orb->getEvictor().watched(), 0u) << "the evictor of the iterators";
    now += 86399s;
    EXPECT_EQ(openObjects().giveUpIdleWriters(), 0u);
    EXPECT_TRUE(hasPayload(0));
    now += 2s;
    const LogCapture log;
    EXPECT_EQ(openObjects().giveUpIdleWriters(), 1u);
    EXPECT_FALSE(hasPayload(0));
    EXPECT_THROW(idle->close(), CORBA::OBJECT_NOT_EXIST);
    EXPECT_EQ(openObjects().writersOpen(), 0u);
    EXPECT_EQ(counter("writersGivenUp"), 1u);
    EXPECT_EQ(log.texts(1)[0],
              "Gave up a writer of subject cl1 & authority srv1: peer 192.0.2.1 has "
              "not used it for 86400 s (WRITER_IDLE_LIMIT)");
}

TEST_F(OpenWritersTest, WithoutALimitAWriterStays)
{
    limit({10, 10, 10, 0s});
    const RemoteWriter_var idle = writer("cl1", "192.0.2.1");
    now += std::chrono::hours(24 * 3650);
    EXPECT_EQ(openObjects().giveUpIdleWriters(), 0u);
    EXPECT_EQ(idle->close().discStatus, DS_SUCCESS);
}

TEST_F(OpenWritersTest, AClosedWriterIsNotGivenUp)
{
    limit({10, 10, 10, 10s});
    const RemoteWriter_var closed = writer("cl1", "192.0.2.1");
    EXPECT_EQ(closed->close().discStatus, DS_SUCCESS);
    now += 11s;
    EXPECT_EQ(openObjects().giveUpIdleWriters(), 0u);
    EXPECT_EQ(counter("writersGivenUp"), 0u);
}

TEST_F(OpenWritersTest, TheStatusHasThePeersWithTheMostWriters)
{
    limit({10, 10, 10, 0s});
    TlxObjTime::setClock([] { return TlxObjTime(1000, 0); });
    const RemoteWriter_var one = writer("cl1", "192.0.2.1");
    TlxObjTime::setClock([] { return TlxObjTime(2000, 0); });
    const RemoteWriter_var two = writer("cl2", "192.0.2.2");
    const RemoteWriter_var three = writer("cl3", "192.0.2.2");
    const RemoteWriter_var four = writer("cl4", "192.0.2.3");
    TlxObjTime::setClock({});
    const OpenWriters all = openWriters(2);
    EXPECT_EQ(all.open, 4u);
    EXPECT_EQ(all.peers, 3u);
    ASSERT_EQ(all.most.size(), 2u);
    EXPECT_EQ(all.most[0].peer, "192.0.2.2");
    EXPECT_EQ(all.most[0].count, 2u);
    EXPECT_EQ(all.most[0].oldest, TlxObjTime(2000, 0));
    EXPECT_EQ(all.most[1].peer, "192.0.2.1");
    EXPECT_EQ(all.most[1].oldest, TlxObjTime(1000, 0));
}

/// A writer that lets a test act while the service activates it. The POA asks for the type after
/// the object can be reached.
struct Interrupted : RemoteWriter_i
{
    Interrupted(const Remote::Discovery& discovery, std::function<const char*()> act, int& ended)
        : RemoteWriter_i(discovery), m_act(std::move(act)), m_ended(ended)
    {
    }
    ~Interrupted() override { ++m_ended; }
    const char* _mostDerivedRepoId() override
    {
        const char* const other = m_act();
        return other ? other : "IDL:Veltrane/Quillmark/Tlx/DiscoverySvc/Remote/RemoteWriter:1.0";
    }

    CORBA::Boolean _is_a(const char*) override { return false; }

  private:
    const std::function<const char*()> m_act;
    int& m_ended;
};

struct Interrupting : DiscoveryService_i
{
    RemoteWriter_i* newRemoteWriter(const Remote::Discovery& discovery) const override
    {
        last = new Interrupted(discovery, act, ended);
        return last;
    }
    std::function<const char*()> act = [] { return nullptr; };
    mutable Interrupted* last = nullptr;
    mutable int ended = 0;
};

TEST_F(OpenWritersTest, AReferenceOfAnotherTypeLeavesNoWriter)
{
    const PortableServer::Servant_var<Interrupting> servant(new Interrupting);
    servant->act = [] { return "IDL:Foreign:1.0"; };
    RemoteWriter_var reference;
    EXPECT_EQ(servant->putCollection(named("cl1"), reference.out()).discStatus, DS_COM_ERROR);
    EXPECT_TRUE(CORBA::is_nil(reference));
    EXPECT_EQ(servant->ended, 1);
    EXPECT_EQ(openObjects().writersOpen(), 0u);
    EXPECT_FALSE(hasPayload(0));
    service.stop(); // it gives up what is left
    EXPECT_EQ(servant->ended, 1);
}

TEST_F(OpenWritersTest, ACloseBeforeTheWriterIsHandedOutLeavesNoWriter)
{
    const PortableServer::Servant_var<Interrupting> servant(new Interrupting);
    std::thread request;
    servant->act = [&]() -> const char* {
        // The POA holds its lock now, so the close cannot end before this returns.
        if (!request.joinable()) {
            request =
                std::thread([&] { EXPECT_EQ(servant->last->close().discStatus, DS_SUCCESS); });
            EXPECT_TRUE(eventually([this] { return !hasPayload(0); }));
            // Without that lock it would be over now.
            for (int i = 0; i < 20000; ++i)
                ::sched_yield();
        }
        return nullptr;
    };
    RemoteWriter_var reference;
    (void)servant->putCollection(named("cl1"), reference.out());
    ASSERT_TRUE(request.joinable());
    request.join();
    EXPECT_EQ(servant->ended, 1);
    EXPECT_EQ(openObjects().writersOpen(), 0u);
    service.stop();
    EXPECT_EQ(servant->ended, 1);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
