// The bounds on connections: who loses one when all places are taken, or when requests stall.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "../../../../libtlx/lib/orb/ConnectionTable.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;
using Clock = WatchedConnection::Clock;
using Wait = WatchedConnection::Wait;

constexpr ConnectionLimits LIMITS{
    .connections = 20, .threads = 8, .request = 30s, .keptBytes = 1000, .stopGrace = 20ms};

/// A connection without a socket.
class Connection : public WatchedConnection
{
  public:
    Connection(ConnectionTable& table, const std::string& address)
        : WatchedConnection(address), m_table(table), m_admitted(table.admit(key(), *this))
    {
    }
    ~Connection() override { m_table.remove(key(), *this); }
    ConnectionTable::Key key() const { return reinterpret_cast<ConnectionTable::Key>(this); }
    void breakOff() override { m_broken = true; }
    void discard() override { m_discarded = m_broken = true; }
    void keep(std::size_t bytes) { m_table.noteKept(*this, bytes); }
    bool isAdmitted() const { return m_admitted; }
    bool isBroken() const { return m_broken; }
    bool isDiscarded() const { return m_discarded; }

  private:
    ConnectionTable& m_table;
    const bool m_admitted;
    bool m_broken = false;
    bool m_discarded = false;
};

struct ConnectionTableTest : testing::Test
{
    ConnectionTable table{LIMITS};
    std::vector<std::unique_ptr<Connection>> connections;
    QmTest::LogCapture log;

    Connection& open(const std::string& address)
    {
        connections.push_back(std::make_unique<Connection>(table, address));
        return *connections.back();
    }
    void open(const std::string& address, std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i)
            EXPECT_TRUE(open(address).isAdmitted());
    }
    std::size_t brokenOf(const std::string& address) const
    {
        return std::count_if(connections.begin(), connections.end(), [&](const auto& each) {
            return each->isBroken() && each->address() == address;
        });
    }
};

TEST_F(ConnectionTableTest, AllPlacesCanBeTaken)
{
    open("192.0.2.1", LIMITS.connections);
    EXPECT_EQ(brokenOf("192.0.2.1"), 0u);
    EXPECT_EQ(table.counts().open, LIMITS.connections);
    EXPECT_EQ(table.counts().drivenOut, 0u);
}

TEST_F(ConnectionTableTest, OneMoreDrivesOutAnIdleOneOfThePeerWithTheMost)
{
    open("192.0.2.1", 1);
    open("192.0.2.2", LIMITS.connections - 1);
    EXPECT_TRUE(open("192.0.2.3").isAdmitted());
    EXPECT_EQ(brokenOf("192.0.2.1"), 0u);
    EXPECT_EQ(brokenOf("192.0.2.2"), 1u);
    EXPECT_TRUE(connections[1]->isBroken()) << "the one that is idle for longest";
    EXPECT_EQ(table.counts().drivenOut, 1u);
    EXPECT_EQ(
        log.texts(1),
        QmTest::Lines{
            "All 20 connections are taken. Closed one that no thread serves, of 192.0.2.2, which "
            "has 19"});
}

TEST_F(ConnectionTableTest, AConnectionInUseStays)
{
    open("192.0.2.2", LIMITS.connections);
    const Wait first(*connections[0]);
    connections[1]->noteArrived();
    connections[2]->noteServed(true);
    EXPECT_TRUE(open("192.0.2.3").isAdmitted());
    EXPECT_FALSE(connections[0]->isBroken()) << "it waits for its peer";
    EXPECT_FALSE(connections[1]->isBroken()) << "used last";
    EXPECT_FALSE(connections[2]->isBroken()) << "a thread serves its request";
    EXPECT_TRUE(connections[3]->isBroken());
    connections[2]->noteServed(false);
    EXPECT_TRUE(open("192.0.2.3").isAdmitted());
    EXPECT_TRUE(connections[2]->isBroken());
}

TEST_F(ConnectionTableTest, WithoutAnIdleOneTheNewcomerIsRefused)
{
    open("192.0.2.2", LIMITS.connections);
    std::vector<std::unique_ptr<Wait>> waits;
    for (const auto& each : connections)
        waits.push_back(std::make_unique<Wait>(*each));
    EXPECT_FALSE(open("192.0.2.3").isAdmitted());
    EXPECT_EQ(brokenOf("192.0.2.2"), 0u);
    EXPECT_EQ(table.counts().refused, 1u);
    EXPECT_EQ(log.texts(1), QmTest::Lines{"Refused a connection of 192.0.2.3: all 20 are taken"});
}

TEST_F(ConnectionTableTest, AFloodIsRefusedBeforeThePeersThatHaveFew)
{
    const std::size_t room = connectionReserve(LIMITS.connections);
    open("192.0.2.1", 1);
    std::size_t admitted = 0;
    while (open("192.0.2.2").isAdmitted())
        ++admitted;
    EXPECT_EQ(admitted, LIMITS.connections + room / 2 - 1);
    connections.pop_back();
    open("192.0.2.1", 5);
    EXPECT_FALSE(open("192.0.2.2").isAdmitted());
    connections.pop_back();
    EXPECT_EQ(brokenOf("192.0.2.1"), 0u);
    EXPECT_EQ(brokenOf("192.0.2.2"), room / 2 + 5);
    std::erase_if(connections, [](const auto& each) { return each->isBroken(); });
    EXPECT_EQ(table.counts().open, LIMITS.connections) << "those driven out are gone";
    EXPECT_EQ(table.counts().highest, LIMITS.connections + room / 2 + 5);
    EXPECT_EQ(table.counts().refused, 2u);
}

TEST_F(ConnectionTableTest, AnIPv6NetworkIsOnePeer)
{
    for (std::size_t i = 0; i < LIMITS.connections - 2; ++i)
        open("2001:db8:0:1::" + std::to_string(i));
    open("192.0.2.1", 2);
    open("192.0.2.3");
    EXPECT_EQ(brokenOf("192.0.2.1"), 0u);
    EXPECT_EQ(table.counts().drivenOut, 1u);
}

TEST_F(ConnectionTableTest, ABegunRequestHasItsTime)
{
    Connection& slow = open("192.0.2.1");
    slow.noteIncomplete(1, "a request began and stalled");
    slow.noteIncomplete(1, "a request began and stalled");
    table.look(Clock::now() + LIMITS.request - 1s);
    EXPECT_FALSE(slow.isBroken());
    table.look(Clock::now() + LIMITS.request);
    EXPECT_TRUE(slow.isBroken());
    EXPECT_EQ(table.counts().stalled, 1u);
    EXPECT_EQ(log.texts(1), QmTest::Lines{"Closed a connection of 192.0.2.1: a request began and "
                                          "stalled"});
    table.look(Clock::now() + 2 * LIMITS.request);
    EXPECT_EQ(table.counts().stalled, 1u) << "counted once";
}

TEST_F(ConnectionTableTest, AnArrivedRequestIsNotStalled)
{
    Connection& slow = open("192.0.2.1");
    slow.noteIncomplete(1, "a request began and stalled");
    slow.noteArrived();
    table.look(Clock::now() + 2 * LIMITS.request);
    EXPECT_FALSE(slow.isBroken());
    slow.noteIncomplete(2, "a request began and stalled");
    slow.noteNothing();
    table.look(Clock::now() + 2 * LIMITS.request);
    EXPECT_FALSE(slow.isBroken());
}

TEST_F(ConnectionTableTest, OtherRequestsDoNotProlongTheTimeOfABegunOne)
{
    constexpr auto FIRST = 100ms;
    Connection& slow = open("192.0.2.1");
    const auto begin = Clock::now();
    slow.noteIncomplete(1, "a request began and stalled");
    std::this_thread::sleep_for(FIRST);
    slow.noteArrived();
    const auto atMost = Clock::now() - begin;
    std::this_thread::sleep_for(FIRST); // a thread serves another request, so this does not count
    const auto again = Clock::now();
    slow.noteIncomplete(1, "a request began and stalled");
    table.look(again + LIMITS.request - atMost - 1ms);
    EXPECT_FALSE(slow.isBroken());
    table.look(Clock::now() + LIMITS.request - FIRST);
    EXPECT_TRUE(slow.isBroken());
}

TEST_F(ConnectionTableTest, EachBegunRequestHasATimeOfItsOwn)
{
    Connection& steady = open("192.0.2.1");
    steady.noteIncomplete(1, "a request began and stalled");
    std::this_thread::sleep_for(100ms);
    const auto second = Clock::now();
    steady.noteIncomplete(2, "a request began and stalled");
    table.look(second + LIMITS.request - 1ms);
    EXPECT_FALSE(steady.isBroken());
    table.look(Clock::now() + LIMITS.request);
    EXPECT_TRUE(steady.isBroken());
}

TEST_F(ConnectionTableTest, AByteNowAndThenIsAStall)
{
    open("192.0.2.1", LIMITS.threads / 2 + 1);
    for (const auto& each : connections) {
        const Wait over(*each);
        each->noteMoved(PROGRESS_BYTES - 1);
    }
    table.look(Clock::now() + 1s);
    EXPECT_EQ(table.counts().stalled, 1u);
    EXPECT_TRUE(connections[0]->isBroken());
    connections[1]->noteMoved(1);
    open("192.0.2.1", 1);
    {
        const Wait over(*connections.back());
    }
    table.look(Clock::now() + 1s);
    EXPECT_EQ(table.counts().stalled, 1u) << "one has made progress";
    for (const auto& each : connections)
        each->noteWhole();
    open("192.0.2.1", LIMITS.threads / 2);
    for (std::size_t i = connections.size() - LIMITS.threads / 2; i < connections.size(); ++i)
        const Wait over(*connections[i]);
    table.look(Clock::now() + 1s);
    EXPECT_EQ(table.counts().stalled, 1u) << "the others have arrived";
}

TEST_F(ConnectionTableTest, StalledRequestsMayTakeHalfOfTheThreads)
{
    open("192.0.2.1", 1);
    open("192.0.2.2", LIMITS.threads / 2);
    std::vector<std::unique_ptr<Wait>> waits;
    for (std::size_t i = 1; i < connections.size(); ++i)
        waits.push_back(std::make_unique<Wait>(*connections[i]));
    table.look(Clock::now() + 1s);
    EXPECT_EQ(table.counts().stalled, 0u);

    waits.push_back(std::make_unique<Wait>(*connections[0]));
    table.look(Clock::now());
    EXPECT_EQ(table.counts().stalled, 0u) << "short waits are normal";
    table.look(Clock::now() + 1s);
    EXPECT_FALSE(connections[0]->isBroken()) << "this peer has fewer";
    EXPECT_TRUE(connections[1]->isBroken()) << "the longest wait of the peer with the most";
    EXPECT_EQ(table.counts().stalled, 1u);
    EXPECT_EQ(log.texts(1), QmTest::Lines{"Closed a connection of 192.0.2.2: stalled requests take "
                                          "half of the threads (REQUEST_THREADS)"});
}

TEST_F(ConnectionTableTest, AnIdleConnectionIsCountedExceptDuringTheStop)
{
    open("192.0.2.1", 1);
    table.noteIdle(*connections[0]);
    EXPECT_EQ(table.counts().leftIdle, 1u);
    EXPECT_EQ(log.texts(LOG_LEVEL_PROGRESS),
              QmTest::Lines{"Closed an idle connection of 192.0.2.1 (IDLE_CONNECTION_SECONDS)"});
    table.stop();
    table.noteIdle(*connections[0]);
    EXPECT_EQ(table.counts().leftIdle, 1u);
}

TEST_F(ConnectionTableTest, APlainPeerHasOneWarning)
{
    open("192.0.2.1", 2);
    open("192.0.2.2", 1);
    for (const auto& each : connections)
        table.notePlain(*each);
    EXPECT_EQ(table.counts().plain, 3u);
    EXPECT_EQ(log.texts(1), (QmTest::Lines{"TLS does not protect the calls of 192.0.2.1 (TLS = "
                                           "on): the connection is plain",
                                           "TLS does not protect the calls of 192.0.2.2 (TLS = "
                                           "on): the connection is plain"}));
}

TEST_F(ConnectionTableTest, TenThousandPlainPeersAreRemembered)
{
    const auto note = [this](std::size_t number) {
        Connection each(table, "10.0." + std::to_string(number / 256) + "." +
                                   std::to_string(number % 256));
        table.notePlain(each);
    };
    for (std::size_t number = 0; number < MAX_PLAIN_PEERS; ++number)
        note(number);
    note(0);
    EXPECT_EQ(log.texts(1).size(), MAX_PLAIN_PEERS) << "all are remembered";
    note(MAX_PLAIN_PEERS);
    EXPECT_EQ(log.texts(1).size(), MAX_PLAIN_PEERS + 1) << "one more";
    note(0);
    EXPECT_EQ(log.texts(1).size(), MAX_PLAIN_PEERS + 2) << "the list has started anew";
}

TEST_F(ConnectionTableTest, ArrivedBytesMayTakeAllOfTheirRoom)
{
    open("192.0.2.1", 2);
    open("192.0.2.2", 1);
    connections[0]->keep(300);
    connections[1]->keep(301);
    connections[2]->keep(399);
    EXPECT_EQ(table.counts().crowdedOut, 0u);
    connections[2]->keep(400);
    EXPECT_FALSE(connections[2]->isBroken()) << "its peer keeps less";
    EXPECT_FALSE(connections[0]->isBroken());
    EXPECT_TRUE(connections[1]->isDiscarded()) << "the largest one of the peer with the most";
    EXPECT_EQ(table.counts().crowdedOut, 1u);
    EXPECT_EQ(
        log.texts(1),
        QmTest::Lines{"Requests that have arrived take all of 1000 bytes "
                      "(MAX_ARRIVING_BYTES). Closed a connection of 192.0.2.1, which took 301"});
    connections[0]->keep(600);
    EXPECT_EQ(table.counts().crowdedOut, 1u) << "the bytes of the discarded one are free";
    connections[2]->keep(0);
    connections.erase(connections.begin());
    connections.back()->keep(1000);
    EXPECT_EQ(table.counts().crowdedOut, 1u) << "the bytes of one that is gone are free";
}

TEST_F(ConnectionTableTest, AMalformedMessageIsCounted)
{
    table.noteMalformed(open("192.0.2.1"), "it sent a malformed message");
    EXPECT_EQ(table.counts().malformed, 1u);
    EXPECT_EQ(log.texts(1), QmTest::Lines{"Closed a connection of 192.0.2.1: it sent a malformed "
                                          "message"});
}

TEST_F(ConnectionTableTest, AWaitEndsWithItsLastThread)
{
    Connection& busy = open("192.0.2.2");
    open("192.0.2.2", LIMITS.threads);
    std::vector<std::unique_ptr<Wait>> waits;
    for (const auto& each : connections)
        waits.push_back(std::make_unique<Wait>(*each));
    {
        const Wait second(busy);
    }
    table.look(Clock::now() + 1s);
    EXPECT_TRUE(busy.isBroken());
    EXPECT_EQ(table.counts().stalled, connections.size() - LIMITS.threads / 2);
}

TEST_F(ConnectionTableTest, AStopBreaksOffWhatStillWaits)
{
    EXPECT_EQ(table.waitLimit(), LIMITS.request);
    Connection& idle = open("192.0.2.1");
    Connection& stalled = open("192.0.2.2");
    Connection& quick = open("192.0.2.3");
    const Wait wait(stalled);
    auto shortWait = std::make_unique<Wait>(quick);
    std::thread reply([&] { shortWait.reset(); });
    table.stop();
    reply.join();
    EXPECT_FALSE(idle.isBroken());
    EXPECT_TRUE(stalled.isBroken());
    EXPECT_FALSE(quick.isBroken()) << "it ended within the moment that a stop leaves";
    EXPECT_EQ(table.waitLimit(), LIMITS.stopGrace);
}

TEST_F(ConnectionTableTest, KnowsWhatIsThere)
{
    int used = 0;
    const auto count = [&used](WatchedConnection&) { ++used; };
    Connection& connection = open("192.0.2.1");
    table.with(connection.key(), count);
    EXPECT_EQ(used, 1);
    table.remove(connection.key(), connection);
    table.with(connection.key(), count);
    EXPECT_EQ(used, 1);
}

TEST_F(ConnectionTableTest, ManyThreadsComeAndGo)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([this, i] {
            for (int round = 0; round < 500; ++round) {
                Connection each(table, "192.0.2." + std::to_string(i));
                const Wait wait(each);
                each.noteArrived();
                if (round % 50 == 0)
                    table.look(Clock::now());
            }
        });
    for (std::thread& each : threads)
        each.join();
    EXPECT_EQ(table.counts().open, 0u);
    EXPECT_LE(table.counts().highest, 8u);
    EXPECT_EQ(table.counts().refused, 0u);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
