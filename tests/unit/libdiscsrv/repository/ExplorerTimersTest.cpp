// The timers, on a reactor. The test decides the reactor's time.

#include "ExplorerTimers.h"

#include <chrono>
#include <cstdlib>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "ExplorerFixture.h"
#include "FakePeer.h"
#include "ServiceFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::Calls;
using QmTest::FakePull;
using QmTest::FakePush;
using QmTest::FakeReactor;
using QmTest::FakeRepository;
using QmTest::LogCapture;

constexpr long FOUR_HOURS = 14400;

struct ExplorerTimersTest : testing::Test
{
    ExplorerTimersTest() { HostConfig::instance().readText("CLIENT_NAME = here\n", "qm.conf"); }
    ~ExplorerTimersTest() override { TlxObjTime::setClock({}); }

    /// The value of rand() % range after the seed.
    static unsigned delayOf(unsigned seed, unsigned range)
    {
        std::srand(seed);
        return static_cast<unsigned>(std::rand()) % range;
    }

    FakeReactor reactor;
    const AutoDereference<FakeRepository> repository{new FakeRepository};
    const AutoDereference<FakePush> push{new FakePush};
};

TEST_F(ExplorerTimersTest, APushIsAtOnceAndEveryFourHours)
{
    repository->push("s", "a", 7, *push);
    TlxObjTime::setClock([] { return TlxObjTime(1000, 5); });
    repository->startPushTimer();
    EXPECT_EQ(reactor.pass(1), 1);
    EXPECT_EQ(push->calls, Calls{"push s of a"});
    EXPECT_EQ(reactor.scheduled(), 1);
    EXPECT_EQ(repository->getNextPush(), TlxObjTime(1000 + FOUR_HOURS, 5));
    EXPECT_EQ(reactor.pass(FOUR_HOURS - 1), 0);
    EXPECT_EQ(reactor.pass(1), 1);
    EXPECT_EQ(push->calls.size(), 2u);
    EXPECT_EQ(reactor.scheduled(), 1);
}

TEST_F(ExplorerTimersTest, ASecondStartAddsATimerAndLeavesTheFirstRunning)
{
    repository->push("s", "a", 7, *push);
    repository->startPushTimer();
    const AutoDereference<FakePush> later(new FakePush("later"));
    repository->push("t", "a", 7, *later);
    repository->startPushTimer();
    EXPECT_EQ(reactor.scheduled(), 2);
    EXPECT_EQ(reactor.pass(1), 2);
    EXPECT_EQ(push->calls, (Calls{"push s of a", "push s of a"}));
    EXPECT_EQ(later->calls, Calls{"push t of a"}) << "only the second timer has its copy";
    // Both run again. A trigger moves the second one only.
    EXPECT_EQ(reactor.scheduled(), 2);
    repository->triggerPushTimer();
    EXPECT_EQ(reactor.pass(61), 1);
    EXPECT_EQ(later->calls.size(), 2u);
    repository->shutdown();
    EXPECT_EQ(reactor.pass(2 * FOUR_HOURS), 1) << "the first timer, which finds the shutdown";
    EXPECT_EQ(push->calls.back(), "stop s of a");
    EXPECT_EQ(reactor.scheduled(), 0);
    repository->fini();
}

TEST_F(ExplorerTimersTest, APushCarriesItsAttributesAndTheRepository)
{
    repository->push("s", "a", 7, *push);
    TlxObjTime::setClock([] { return TlxObjTime(1000, 5); });
    DiscoveryFactory* factory = nullptr;
    push->onPush = [&](DiscoveryFactory* of, DiscoveryResult& result) {
        factory = of;
        EXPECT_TRUE(isSuccess(result));
    };
    repository->startPushTimer();
    reactor.pass(1);
    ASSERT_EQ(push->attributes.size(), 1u);
    const CollectionAttributes& attributes = push->attributes[0];
    EXPECT_EQ(attributes.getType(), CT_POINT_IN_TIME);
    EXPECT_EQ(attributes.getStorage(), CS_CENTRALREPOSITORY);
    EXPECT_EQ(attributes.getDiscoveryTime(), TlxObjTime(1000, 5));
    EXPECT_EQ(attributes.getTimeToLive(), TlxObjTime(FOUR_HOURS, 0));
    EXPECT_EQ(attributes.getPriority(), 7u);
    EXPECT_EQ(factory, static_cast<DiscoveryFactory*>(repository.get()));
}

TEST_F(ExplorerTimersTest, AFailedPushStopsNeitherTheOthersNorTheNextCycle)
{
    const AutoDereference<FakePush> bad(new FakePush("bad"));
    bad->onPush = [](DiscoveryFactory*, DiscoveryResult&) { throw std::runtime_error("broken"); };
    repository->push("a", "a", 1, *bad);
    repository->push("b", "a", 1, *push);
    const LogCapture log;
    repository->startPushTimer();
    reactor.pass(1);
    EXPECT_EQ(push->calls, Calls{"push b of a"});
    EXPECT_EQ(log.texts(1), Calls{"Explorer bad, pushCollection for a of a failed: broken"});
    EXPECT_EQ(reactor.scheduled(), 1);
    const auto status = repository->getExplorerStatus();
    EXPECT_EQ(status[0].outcome, "it failed; see the log");
    EXPECT_EQ(status[1].outcome, "pushed");
}

TEST_F(ExplorerTimersTest, AFailedPushIsShownInTheStatus)
{
    repository->push("s", "a", 1, *push);
    push->onPush = [](DiscoveryFactory*, DiscoveryResult& result) {
        result.discStatus = DS_OPEN_FAILED;
    };
    push->answer = false;
    repository->startPushTimer();
    reactor.pass(1);
    EXPECT_EQ(repository->getExplorerStatus()[0].outcome, "it pushed nothing (status 3)");
    EXPECT_EQ(reactor.scheduled(), 1);
}

/// A repository that throws during the run of a timer.
struct ThrowingRepository : FakeRepository
{
    void getMasterServerName(TlxHostname&) const override
    {
        if (fromOrb)
            throw CORBA::NO_MEMORY();
        throw std::runtime_error("broken");
    }
    bool fromOrb = false;
};

TEST_F(ExplorerTimersTest, WhatATimerThrowsIsLoggedAndItRunsAgainInFiveMinutes)
{
    const AutoDereference<ThrowingRepository> throwing(new ThrowingRepository);
    throwing->startRegisterTimer();
    const LogCapture log;
    EXPECT_EQ(reactor.pass(300), 1);
    EXPECT_EQ(log.texts(1), Calls{"A timer failed: broken"});
    EXPECT_EQ(log.lines().back().operation, "DiscoveryTimerBase::handle_timeout");
    EXPECT_EQ(reactor.scheduled(), 1);
    EXPECT_EQ(reactor.pass(299), 0);
    throwing->fromOrb = true;
    EXPECT_EQ(reactor.pass(1), 1);
    EXPECT_EQ(log.texts(1).back(), "A timer failed: NO_MEMORY (minor 0x00000000, COMPLETED_NO)");
    EXPECT_EQ(reactor.scheduled(), 1);
}

TEST_F(ExplorerTimersTest, ExplorersRegisteredLaterAreNotPushed)
{
    repository->startPushTimer();
    repository->push("s", "a", 7, *push);
    reactor.pass(1);
    EXPECT_EQ(push->calls, Calls{});
}

TEST_F(ExplorerTimersTest, ACycleThatFindsTheShutdownEndsAtOnceAndIsNotScheduledAgain)
{
    const AutoDereference<FakePush> first(new FakePush);
    repository->push("a", "a", 1, *first);
    repository->push("b", "a", 1, *push);
    first->onPush = [this](DiscoveryFactory*, DiscoveryResult&) {
        std::thread([this] { repository->shutdown(); }).join();
    };
    repository->startPushTimer();
    reactor.pass(1);
    EXPECT_EQ(push->calls, Calls{"stop b of a"});
    EXPECT_EQ(reactor.scheduled(), 0);
    repository->fini();
}

TEST_F(ExplorerTimersTest, AStopTakesTheScheduleAwayAndFiniReturns)
{
    repository->push("s", "a", 1, *push);
    repository->startPushTimer();
    repository->startRegisterTimer();
    EXPECT_EQ(reactor.scheduled(), 2);
    repository->shutdown();
    EXPECT_EQ(reactor.scheduled(), 0);
    repository->fini();
    EXPECT_EQ(push->calls, Calls{"stop s of a"});
    repository->startPushTimer();
    repository->startRegisterTimer();
    EXPECT_EQ(reactor.scheduled(), 0) << "never once shutting down";
}

TEST_F(ExplorerTimersTest, FiniWaitsForARunInProgress)
{
    std::atomic<bool> inside{false};
    std::atomic<bool> over{false};
    repository->push("s", "a", 1, *push);
    push->onPush = [&](DiscoveryFactory*, DiscoveryResult&) {
        inside = true;
        while (!repository->isShuttingDown())
            std::this_thread::yield();
        over = true;
    };
    repository->startPushTimer();
    std::thread cycle([this] { reactor.pass(1); });
    while (!inside)
        std::this_thread::yield();
    repository->shutdown();
    repository->fini();
    EXPECT_TRUE(over);
    cycle.join();
    EXPECT_EQ(reactor.scheduled(), 0);
}

TEST_F(ExplorerTimersTest, ATriggerMovesTheNextPush)
{
    repository->push("s", "a", 1, *push);
    repository->startPushTimer();
    reactor.pass(1);
    const LogCapture log;
    repository->triggerPushTimer();
    EXPECT_EQ(log.texts(4),
              Calls{"triggering push in " + std::to_string(delayOf(0, 60)) + " seconds"});
    EXPECT_EQ(reactor.scheduled(), 1);
    EXPECT_EQ(reactor.pass(61), 1);
    EXPECT_EQ(push->calls.size(), 2u);
}

TEST_F(ExplorerTimersTest, ATriggerInTheMiddleOfACycleLeavesOneSchedule)
{
    repository->push("s", "a", 1, *push);
    push->onPush = [this](DiscoveryFactory*, DiscoveryResult&) { repository->triggerPushTimer(); };
    repository->startPushTimer();
    reactor.pass(1);
    EXPECT_EQ(reactor.scheduled(), 1);
    EXPECT_EQ(reactor.pass(61), 1) << "the trigger stays";
}

TEST_F(ExplorerTimersTest, TheSeedIsTheNumberAHostsNameBeginsWith)
{
    repository->startPushTimer();
    for (const auto& [name, seed] : {std::pair{"42host", 42u}, std::pair{"host42", 0u}}) {
        HostConfig::instance().readText(std::string("CLIENT_NAME = ") + name + "\n", "qm.conf");
        const LogCapture log;
        repository->triggerPushTimer();
        EXPECT_EQ(log.texts(4),
                  Calls{"triggering push in " + std::to_string(delayOf(seed, 60)) + " seconds"});
    }
}

TEST_F(ExplorerTimersTest, WithoutAPushTimerATriggerDoesNothing)
{
    const LogCapture log;
    repository->triggerPushTimer();
    EXPECT_EQ(log.lines().size(), 0u);
    EXPECT_EQ(reactor.scheduled(), 0);
}

TEST_F(ExplorerTimersTest, WithoutAReactorNothingIsScheduled)
{
    setAceReactor(nullptr);
    repository->startPushTimer();
    EXPECT_TRUE(repository->getNextPush().isZero());
    repository->shutdown();
    repository->fini();
}

TEST_F(ExplorerTimersTest, AClientWithoutAMasterTriesAgainEveryFiveMinutesAndNeverPushes)
{
    repository->push("s", "a", 1, *push);
    repository->startRegisterTimer();
    LogCapture log;
    EXPECT_EQ(reactor.pass(301), 1);
    EXPECT_EQ(log.texts(1), Calls{"Cannot find master server name, cannot register explorers"});
    log.clear();
    EXPECT_EQ(reactor.pass(299), 0);
    EXPECT_EQ(reactor.pass(1), 1);
    EXPECT_EQ(log.texts(1), Calls{"Cannot find master server name, cannot register explorers"});
    EXPECT_EQ(push->calls, Calls{});
    EXPECT_EQ(reactor.scheduled(), 1);
}

TEST_F(ExplorerTimersTest, AMasterThatCannotBeReachedIsTriedAgain)
{
    repository->masterName = "master1";
    repository->startRegisterTimer();
    const AssertionCapture assertions; // there is no ORB here, so no host can be reached
    const LogCapture log;
    EXPECT_EQ(reactor.pass(301), 1);
    EXPECT_EQ(log.texts(4)[0], "Registering 0 explorers with master server");
    EXPECT_EQ(log.texts(1),
              (Calls{"Failed to connect to remote discovery service",
                     "Failed to connect to discovery service on the master, retrying later"}));
    EXPECT_EQ(reactor.scheduled(), 1);
    EXPECT_EQ(reactor.pass(299), 0);
    EXPECT_EQ(reactor.pass(1), 1);
}

TEST_F(ExplorerTimersTest, TheFirstRegistrationComesAfterTheHostsOwnDelay)
{
    repository->startRegisterTimer();
    const long delay = delayOf(0, 300);
    EXPECT_EQ(reactor.pass(delay - 1), 0);
    EXPECT_EQ(reactor.pass(1), 1);
}

TEST_F(ExplorerTimersTest, RestartsAndAStopAtTheSameMomentLeaveNoSchedule)
{
    repository->push("s", "a", 1, *push);
    repository->startPushTimer();
    std::thread triggers([this] {
        for (int i = 0; i < 200; ++i)
            repository->triggerPushTimer();
    });
    std::thread runs([this] {
        for (int i = 0; i < 200; ++i)
            reactor.pass(100);
    });
    repository->shutdown();
    triggers.join();
    runs.join();
    repository->fini();
    EXPECT_EQ(reactor.scheduled(), 0);
}

/// A client whose master, "peer", is another process.
struct RegisterTimerTest : testing::Test
{
    /// Calls the test before it connects to the master.
    struct Repository : FakeRepository
    {
        void getMasterServerName(TlxHostname& out) const override
        {
            FakeRepository::getMasterServerName(out);
            if (onMaster)
                onMaster();
        }
        std::function<void()> onMaster;
    };

    RegisterTimerTest()
    {
        // The first use makes it, which is not safe for several threads. A service does that at its
        // start.
        Remote::DiscoveryService::_nil();
        Remote::CollectionDataIterator::_nil();
        HostConfig::instance().readText(
            "CLIENT_NAME = here\nENDPOINT.peer = " + peer.endpoint + "\n", "qm.conf");
        repository->masterName = "peer";
        repository->setDiscoveryFramework(framework.get());
        setAceReactor(nullptr); // removes the ORB's reactor
        reactor.emplace();
    }
    ~RegisterTimerTest() override
    {
        if (!repository->isShuttingDown())
            repository->shutdown();
        repository->fini();
    }
    /// The requests that the peer got.
    std::string asked() const
    {
        const Remote::DiscoveryService_var service = repository->connectToRemoteDiscoveryService(
            TlxHostname(TlxString("peer")), "DiscoveryService");
        Remote::Discovery of;
        of.queryType = DQ_UNDEFINED;
        of.subject = "log";
        of.authority = "a";
        of.authType = AT_EXTSRC;
        of.attributes = {CT_CONFIGURATION, CS_LOCALONLY, 0, 0, 0};
        Remote::CollectionDataIterator_var iterator;
        EXPECT_EQ(service->getCollectionData(of, "", iterator.out()), DS_SUCCESS);
        const Remote::CollectionDataSeq_var page = iterator->getNextPage();
        return {reinterpret_cast<const char*>(page->get_buffer()), page->length()};
    }
    /// The level-1 lines that the timer wrote.
    static Calls failures(const LogCapture& log)
    {
        Calls texts;
        for (const LogCapture::Line& line : log.lines())
            if (line.level == 1 &&
                line.operation == "DiscoveryRepository::ExplorerRegisterTimer::handle_timeout")
                texts.push_back(line.text);
        return texts;
    }

    QmTest::FakePeer peer; // forked before anything else
    Orb orb{false, "127.0.0.1:0", "MyService", false};
    const AutoDereference<DiscoveryFramework> framework{
        new DiscoveryFramework("", DST_GENERIC, &orb, false)};
    const AutoDereference<Repository> repository{new Repository};
    const AutoDereference<FakePush> push{new FakePush};
    const AutoDereference<FakePull> pull{new FakePull};
    std::optional<FakeReactor> reactor;
};

TEST_F(RegisterTimerTest, EachPullExplorerIsRegisteredWithItsNamesTypeAndPriority)
{
    repository->pull("s 1", "a1", 7, *pull, AT_EXTSRC);
    repository->pull("s2", "a2", 32767, *pull, AT_QMKSERVER);
    repository->push("pushed", "a", 1, *push);
    repository->startRegisterTimer();
    const LogCapture log;
    EXPECT_EQ(reactor->pass(301), 2) << "and the push timer, at once";
    EXPECT_EQ(failures(log), Calls{});
    EXPECT_TRUE(log.has(4, "Registering 2 explorers with master server"));
    EXPECT_TRUE(log.has(4, "Successfully registered explorers with master"));
    EXPECT_EQ(asked(),
              "register MyService here s%201 a1 3 7;register MyService here s2 a2 1 32767;");
    EXPECT_EQ(push->calls, Calls{"push pushed of a"});
}

TEST_F(RegisterTimerTest, AMasterThatThrowsIsTriedAgainInFiveMinutes)
{
    repository->pull("throw", "a", 7, *pull);
    repository->push("pushed", "a", 1, *push);
    repository->startRegisterTimer();
    LogCapture log;
    EXPECT_EQ(reactor->pass(301), 1);
    const Calls lines{"Caught CORBA exception registering explorers with master, retrying later",
                      "NO_MEMORY (minor 0x00000000, COMPLETED_NO)"};
    EXPECT_EQ(log.texts(1), lines);
    EXPECT_EQ(failures(log), lines);
    EXPECT_FALSE(log.has(4, "Successfully registered explorers with master"));
    EXPECT_EQ(push->calls, Calls{});
    EXPECT_EQ(reactor->scheduled(), 1);
    log.clear();
    EXPECT_EQ(reactor->pass(299), 0);
    EXPECT_EQ(reactor->pass(1), 1);
    EXPECT_EQ(failures(log), lines);
}

TEST_F(RegisterTimerTest, AShutdownInTheMiddleOfTheWalkEndsIt)
{
    repository->pull("hold", "a", 7, *pull);
    repository->pull("later", "b", 7, *pull);
    repository->startRegisterTimer();
    const LogCapture log;
    std::thread run([this] { EXPECT_EQ(reactor->pass(301), 1); });
    const std::string first = "register MyService here hold a 2 7;";
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (asked() != first && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    EXPECT_EQ(asked(), first);
    repository->shutdown();
    const Remote::DiscoveryService_var service = repository->connectToRemoteDiscoveryService(
        TlxHostname(TlxString("peer")), "DiscoveryService");
    service->restartLocalPushTimer(); // makes the first request return
    run.join();
    EXPECT_EQ(asked(), first + "restart;");
    EXPECT_EQ(log.texts(1), Calls{});
    EXPECT_TRUE(log.has(4, "Registering 2 explorers with master server"));
    EXPECT_FALSE(log.has(4, "Successfully registered explorers with master"));
    EXPECT_EQ(reactor->scheduled(), 0);
}

TEST_F(RegisterTimerTest, AMasterThatIsGoneIsNotTriedAgainDuringTheShutdown)
{
    peer.kill();
    repository->startRegisterTimer();
    repository->onMaster = [this] { std::thread([this] { repository->shutdown(); }).join(); };
    const LogCapture log;
    EXPECT_EQ(reactor->pass(301), 1);
    EXPECT_EQ(log.texts(1), Calls{"Failed to connect to remote discovery service"});
    EXPECT_EQ(failures(log), Calls{});
    EXPECT_EQ(reactor->scheduled(), 0);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
