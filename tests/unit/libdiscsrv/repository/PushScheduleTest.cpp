// Tests the schedule alone. The test plays its owner, and the test decides the reactor's time.

#include "PushSchedule.h"

#include <new>

#include "ExplorerFixture.h"
#include "ExplorerTimers.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::Calls;
using QmTest::FakePush;
using QmTest::FakeReactor;
using QmTest::LogCapture;

struct PushScheduleTest : testing::Test, PushScheduleOwner
{
    PushScheduleTest() { HostConfig::instance().readText("CLIENT_NAME = here\n", "qm.conf"); }

    bool isShuttingDown() const override { return shuttingDown; }
    std::shared_ptr<const ExplorerSet> getPushExplorers() const override
    {
        if (!pushes)
            throw std::bad_alloc();
        return pushes;
    }
    std::shared_ptr<const ExplorerSet> getPullExplorers() const override { return pulls; }
    void getMasterServerName(TlxHostname& out) const override { out.setHostname(masterName); }
    Remote::DiscoveryService_ptr connectToMaster(const TlxHostname& master) const override
    {
        connected.push_back(master.text().utf8());
        return Remote::DiscoveryService::_nil();
    }
    TlxString getOrbServiceName() const override { return "MyService"; }
    DiscoveryFactory* getFactory() override { return nullptr; }
    void startPushTimer() override { schedule.startPush(); }

    void add(const std::string& subject)
    {
        const Subject of(subject);
        const Authority by("a", AT_QMKCLIENT);
        auto next = std::make_shared<ExplorerSet>(*pushes);
        next->insert(
            AutoDereference<ExplorerWrapper>(new ExplorerWrapper(push.get(), 1u, &of, &by)));
        pushes = next;
    }

    bool shuttingDown = false;
    std::shared_ptr<const ExplorerSet> pushes = std::make_shared<const ExplorerSet>();
    std::shared_ptr<const ExplorerSet> pulls = std::make_shared<const ExplorerSet>();
    TlxString masterName;
    mutable Calls connected;
    FakeReactor reactor;
    const AutoDereference<FakePush> push{new FakePush};
    PushSchedule schedule{*this};
};

TEST_F(PushScheduleTest, ASecondStartPushesTheExplorersOfItsMomentAndLeavesTheFirstTimerItsSchedule)
{
    add("s");
    schedule.startPush();
    EXPECT_EQ(reactor.pass(1), 1);
    add("t");
    schedule.startPush();
    EXPECT_EQ(reactor.scheduled(), 2);
    push->calls.clear();
    EXPECT_EQ(reactor.pass(1), 1);
    EXPECT_EQ(push->calls, (Calls{"push s of a", "push t of a"}));
    push->calls.clear();
    EXPECT_EQ(reactor.pass(14400), 2) << "both timers run on";
    EXPECT_EQ(push->calls.size(), 3u);
    EXPECT_EQ(reactor.scheduled(), 2);
}

TEST_F(PushScheduleTest, TwoStartsAtTheSameMomentPushTwiceAndATriggerMovesTheSecond)
{
    add("s");
    schedule.startPush();
    schedule.startPush();
    EXPECT_EQ(reactor.scheduled(), 2);
    EXPECT_EQ(reactor.pass(1), 2);
    EXPECT_EQ(push->calls, Calls(2, "push s of a"));
    schedule.trigger();
    EXPECT_EQ(reactor.scheduled(), 2);
    EXPECT_EQ(reactor.pass(61), 1);
    EXPECT_EQ(push->calls.size(), 3u);
}

TEST_F(PushScheduleTest, ATimerThatWasReplacedEndsWithTheServiceThoughNobodyCancelsIt)
{
    add("s");
    schedule.startPush();
    schedule.startPush();
    shuttingDown = true;
    schedule.close();
    schedule.cancel();
    schedule.wait();
    EXPECT_EQ(reactor.scheduled(), 1) << "the one that was replaced";
    EXPECT_EQ(reactor.pass(1), 1);
    EXPECT_EQ(push->calls, Calls{}) << "it finds the shutdown";
    EXPECT_EQ(reactor.scheduled(), 0);
}

TEST_F(PushScheduleTest, OnceClosedNothingStarts)
{
    schedule.close();
    schedule.startPush();
    schedule.startRegister();
    schedule.trigger();
    EXPECT_EQ(reactor.scheduled(), 0);
    EXPECT_TRUE(schedule.nextPush().isZero());
}

TEST_F(PushScheduleTest, AStartThatFailsLeavesTheTimerThatIsThere)
{
    schedule.startPush();
    pushes = nullptr;
    EXPECT_THROW(schedule.startPush(), std::bad_alloc);
    EXPECT_FALSE(schedule.nextPush().isZero());
    schedule.cancel();
    EXPECT_EQ(reactor.scheduled(), 0);
    schedule.wait();
}

TEST_F(PushScheduleTest, ACancelledScheduleMayBeWaitedFor)
{
    schedule.startPush();
    schedule.startRegister();
    EXPECT_EQ(reactor.scheduled(), 2);
    EXPECT_FALSE(schedule.nextPush().isZero());
    schedule.cancel();
    EXPECT_EQ(reactor.scheduled(), 0);
    EXPECT_TRUE(schedule.nextPush().isZero());
    schedule.wait();
}

TEST_F(PushScheduleTest, TheRegisterTimerAsksForThePullExplorersWhenItRuns)
{
    masterName = "master1";
    schedule.startRegister();
    auto later = std::make_shared<ExplorerSet>();
    const Subject of("s");
    const Authority by("a", AT_QMKCLIENT);
    const AutoDereference<QmTest::FakePull> pull(new QmTest::FakePull);
    later->insert(AutoDereference<ExplorerWrapper>(new ExplorerWrapper(pull.get(), 1u, &of, &by)));
    pulls = later;
    const LogCapture log;
    EXPECT_EQ(reactor.pass(301), 1);
    EXPECT_TRUE(log.has(4, "Registering 1 explorers with master server"));
    EXPECT_EQ(connected, Calls{"master1"});
    EXPECT_EQ(reactor.scheduled(), 1) << "and tries again";
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
