// The reactor of an ORB wrapper: its timers, and how little it needs.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>

#include <ace/Event_Handler.h>
#include <ace/Reactor.h>

#include <gtest/gtest.h>

#include <tlx/File.h>
#include <tlx/HostConfig.h>
#include <tlx/Orb.h>

#include "support/Descriptors.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;

/// A timer that notes its call, and may be held in it.
class Timer : public ACE_Event_Handler
{
  public:
    int handle_timeout(const ACE_Time_Value&, const void*) override
    {
        std::unique_lock lock(m_mutex);
        m_thread = std::this_thread::get_id();
        ++m_calls;
        m_changed.notify_all();
        m_changed.wait_for(lock, 30s, [this] { return !m_held; });
        // Under the mutex, because the waiting thread destroys this object next.
        m_returned = true;
        m_changed.notify_all();
        return 0;
    }
    void hold(bool held)
    {
        const std::lock_guard guard(m_mutex);
        m_held = held;
        m_changed.notify_all();
    }
    bool waitForCall() { return wait(m_calls); }
    bool waitForReturn() { return wait(m_returned); }
    int calls()
    {
        const std::lock_guard guard(m_mutex);
        return m_calls;
    }
    std::thread::id thread()
    {
        const std::lock_guard guard(m_mutex);
        return m_thread;
    }

  private:
    template <class Condition>
    bool wait(const Condition& condition)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, 10s, [&condition] { return condition; });
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_held = false;
    bool m_returned = false;
    int m_calls = 0;
    std::thread::id m_thread;
};

struct OrbReactorTest : testing::Test
{
    OrbReactorTest() { HostConfig::instance().readText("", "none"); }

    static long schedule(const Orb& orb, Timer& timer, time_t seconds)
    {
        return orb.getReactor()->schedule_timer(&timer, nullptr, ACE_Time_Value(seconds));
    }
};

TEST_F(OrbReactorTest, TimersRunOnItsOwnThread)
{
    const Orb orb(true, "", "S", false);
    setAceReactor(orb.getReactor());
    EXPECT_EQ(getAceReactor(), orb.getReactor());
    Timer timer;
    ASSERT_NE(ACE_Reactor::instance()->schedule_timer(&timer, nullptr, ACE_Time_Value::zero), -1);
    EXPECT_TRUE(timer.waitForReturn());
    EXPECT_NE(timer.thread(), std::this_thread::get_id());
}

TEST_F(OrbReactorTest, TheProcessWideOneGoesWithItsOrb)
{
    {
        const Orb orb(true, "", "S", false);
        setAceReactor(orb.getReactor());
    }
    EXPECT_EQ(getAceReactor(), nullptr);
}

TEST_F(OrbReactorTest, ANewTimerMayBeDueBeforeTheOldOnes)
{
    Timer later; // scheduled to the end, so it outlives the reactor
    Timer now;
    const Orb orb(true, "", "S", false);
    ASSERT_NE(schedule(orb, later, 100000), -1);
    ASSERT_NE(schedule(orb, now, 0), -1);
    EXPECT_TRUE(now.waitForReturn());
    EXPECT_EQ(later.calls(), 0);
}

TEST_F(OrbReactorTest, ATimerThatRunsHoldsNobodyUp)
{
    const Orb orb(true, "", "S", false);
    Timer running;
    Timer waiting;
    Timer cancelled;
    running.hold(true);
    ASSERT_NE(schedule(orb, running, 0), -1);
    ASSERT_TRUE(running.waitForCall());
    ASSERT_NE(schedule(orb, waiting, 0), -1);
    const long id = schedule(orb, cancelled, 0);
    EXPECT_EQ(orb.getReactor()->cancel_timer(id, nullptr, 1), 1);
    EXPECT_EQ(waiting.calls(), 0) << "they run one at a time";
    running.hold(false);
    EXPECT_TRUE(waiting.waitForReturn());
    EXPECT_EQ(cancelled.calls(), 0);
}

TEST_F(OrbReactorTest, ItsEndWaitsForTheTimerThatRuns)
{
    Timer running;
    running.hold(true);
    std::thread letGo;
    {
        const Orb orb(true, "", "S", false);
        ASSERT_NE(schedule(orb, running, 0), -1);
        ASSERT_TRUE(running.waitForCall());
        letGo = std::thread([&running] { running.hold(false); });
    }
    letGo.join();
    EXPECT_TRUE(running.waitForReturn());
    EXPECT_EQ(running.calls(), 1);
}

/// The number of descriptors that a process may open in addition.
std::size_t descriptorsLeft()
{
    rlimit limit = {};
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 25000);
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    return limit.rlim_cur - QmTest::descriptorCount();
}

TEST_F(OrbReactorTest, AnyNumberOfDescriptorsMayBeOpenBefore)
{
    constexpr std::size_t forTheOrb = 100;
    const std::size_t most = descriptorsLeft() - forTheOrb;
    std::vector<FileDescriptor> open;
    // The last but one is more than select(2) can wait for.
    for (const std::size_t count : {std::size_t{20}, std::size_t{70}, std::size_t{1100}, most}) {
        while (open.size() < std::min(count, most)) {
            auto another = openFile("/dev/null", O_RDONLY);
            ASSERT_TRUE(another) << another.error().message();
            open.push_back(std::move(*another));
        }
        const Orb orb(true, "", "S", false);
        Timer timer;
        ASSERT_NE(schedule(orb, timer, 0), -1) << count;
        EXPECT_TRUE(timer.waitForReturn()) << count;
    }
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
