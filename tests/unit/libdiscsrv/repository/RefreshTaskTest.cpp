// A master asks its clients to push again. Some clients do, some cannot, and some are down or do
// not answer.

#include "RefreshTask.h"

#include <chrono>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "FakePeer.h"
#include "RemoteDB.h"
#include "ServiceFixture.h"
#include "support/Capture.h"
#include "support/Eventually.h"
#include "support/SilentPeer.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::eventually;
using QmTest::FakePeer;
using QmTest::Lines;
using QmTest::LogCapture;

struct RefreshTaskTest : testing::Test
{
    static void client(const std::string& name)
    {
        EXPECT_EQ(QmTest::Service::put("filesystem", name, "<FilterData></FilterData>").discStatus,
                  DS_SUCCESS);
    }
    /// The lines that the refresh logs, with their levels.
    static Lines told(const LogCapture& log)
    {
        Lines lines;
        for (const LogCapture::Line& line : log.lines())
            if (line.operation == "RefreshDiscoveryTask::svc")
                lines.push_back(std::to_string(line.level) + " " + line.text);
        return lines;
    }
    static DiscoveriesThreadMgr& threads() { return *getDiscoveriesThreadMgr(); }

    FakePeer peer; // forked before anything else
    FakePeer broken{FakePeer::BROKEN};
    FakePeer stranger{FakePeer::STRANGER};
    QmTest::SilentPeer silent;
    QmTest::Service service{
        "SERVER = localhost\nENDPOINT.peer = " + peer.endpoint +
        "\nENDPOINT.broken = " + broken.endpoint + "\nENDPOINT.stranger = " + stranger.endpoint +
        "\nENDPOINT.silent = " + silent.endpoint() + "\nENDPOINT.gone = 127.0.0.1:1\n"};
};

TEST_F(RefreshTaskTest, EachClientInOrderIsAskedAndOneThatCannotIsPassedOver)
{
    for (const char* name : {"peer", "gone", "broken", "stranger"})
        client(name);
    const LogCapture log;
    EXPECT_TRUE(threads().restartAllPushTimers());
    threads().wait();
    EXPECT_EQ(told(log), (Lines{"4 Restarting push timers on client: broken",
                                "1 Caught CORBA exception connecting to remote service",
                                "1 NO_MEMORY (minor 0x00000000, COMPLETED_NO)",
                                "4 Restarting push timers on client: gone",
                                "1 Failed to connect to client discovery service",
                                "4 Restarting push timers on client: peer",
                                "4 Restarting push timers on client: stranger",
                                "1 Failed to connect to client discovery service"}));
    Remote::Discovery record{};
    record.subject = "log";
    record.authority = "a";
    record.authType = AT_EXTSRC;
    record.sourceHost = "peer";
    record.sourceServiceName = "DiscoveryService";
    const AutoDereference<Discovery> asked(getRemoteDiscoveryDatabase()->newDiscovery(record));
    ASSERT_TRUE(asked->getCollectionData()->open(OM_READ, ""));
    char text[100] = {};
    asked->getCollectionData()->readCollection(sizeof text - 1, text);
    EXPECT_EQ(std::string(text), "restart;");
}

TEST_F(RefreshTaskTest, TheMastersOwnExplorersPushToo)
{
    client("here");
    getDiscoveryRepository()->startPushTimer();
    const LogCapture log;
    RefreshDiscoveryTask task(*getDiscoveryRepository());
    EXPECT_EQ(task.svc(), 0);
    EXPECT_EQ(told(log), Lines{"4 Restarting push timers on client: here"});
    const Lines all = log.texts(4);
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [](const std::string& text) {
        return text.rfind("triggering push in ", 0) == 0;
    }));
}

TEST_F(RefreshTaskTest, WithoutClientsNothingHappens)
{
    const LogCapture log;
    EXPECT_TRUE(threads().restartAllPushTimers());
    threads().wait();
    EXPECT_EQ(told(log), Lines{});
    EXPECT_TRUE(threads().restartAllPushTimers()) << "the one before has ended";
    threads().wait();
}

TEST_F(RefreshTaskTest, TheListOfClientsEndsWithTheService)
{
    client("peer");
    EXPECT_EQ(getDiscoveryRepository()->getDiscoveredClientList(), std::set<TlxString>{"peer"});
    getDiscoveryRepository()->shutdown();
    EXPECT_EQ(getDiscoveryRepository()->getDiscoveredClientList(), std::set<TlxString>{});
    const LogCapture log;
    RefreshDiscoveryTask(*getDiscoveryRepository()).svc();
    EXPECT_EQ(told(log), Lines{});
    const AssertionCapture expected; // because the fixture stops the service once more
    service.stop();
}

TEST_F(RefreshTaskTest, WhileARefreshRunsAnotherIsRefused)
{
    client("silent");
    const LogCapture log;
    EXPECT_TRUE(threads().restartAllPushTimers());
    EXPECT_EQ(threads().getRunningThreads(), 1u);
    EXPECT_FALSE(threads().restartAllPushTimers());
    ASSERT_TRUE(eventually([&] { return told(log).size() == 1; }));
    EXPECT_FALSE(threads().restartAllPushTimers());
    silent.close();
    threads().wait();
    EXPECT_EQ(threads().getRunningThreads(), 0u);
    EXPECT_EQ(told(log), (Lines{"4 Restarting push timers on client: silent",
                                "1 Failed to connect to client discovery service"}));
}

TEST_F(RefreshTaskTest, AStopInTheMiddleWaitsForOneClientOnly)
{
    client("silent");
    client("zlast");
    const LogCapture log;
    EXPECT_TRUE(threads().restartAllPushTimers());
    ASSERT_TRUE(eventually([&] { return told(log).size() == 1; }));
    std::thread stop([this] { service.stop(); });
    EXPECT_TRUE(eventually([] { return getDiscoveryRepository()->isShuttingDown(); }));
    silent.close();
    stop.join();
    EXPECT_EQ(threads().getRunningThreads(), 0u);
    EXPECT_EQ(told(log), (Lines{"4 Restarting push timers on client: silent",
                                "1 Failed to connect to client discovery service",
                                "1 qmdisco shutting down, aborting refresh task"}));
    EXPECT_FALSE(threads().restartAllPushTimers());
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
