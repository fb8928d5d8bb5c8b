// Reasons for a stop of the daemon: signals, the service itself, and the time limit of a stop.

#include "StopWatch.h"

#include <csignal>
#include <future>

#include <unistd.h>

#include <gtest/gtest.h>

using namespace Veltrane::Quillmark::Qmdisco;
using namespace std::chrono_literals;

namespace {

class StopWatchTest : public testing::Test
{
  protected:
    /// Longer than any test runs.
    static constexpr auto LONG = 60s;

    /// Runs before the watch makes its thread.
    struct Blocker
    {
        Blocker() { StopWatch::blockSignals(); }
    };
    Blocker m_blocker;
    std::promise<std::string> m_late;
    StopWatch m_watch{1ms, [this](const std::string& text) { m_late.set_value(text); }};

    void setLongLimit() { m_watch.setLimit(60000); }
    std::string lateText()
    {
        auto text = m_late.get_future();
        return text.wait_for(LONG) == std::future_status::ready ? text.get() : "never late";
    }
};

TEST_F(StopWatchTest, NothingIsWantedAtFirst)
{
    const StopWatch::Wish wish = m_watch.wait(0ms);
    EXPECT_FALSE(wish.stop);
    EXPECT_FALSE(wish.reload);
    EXPECT_EQ("", m_watch.stopReason());
}

TEST_F(StopWatchTest, SigtermStops)
{
    setLongLimit();
    ::kill(::getpid(), SIGTERM);
    EXPECT_TRUE(m_watch.wait(LONG).stop);
    EXPECT_EQ("SIGTERM", m_watch.stopReason());
    EXPECT_TRUE(m_watch.wait(0ms).stop) << "it stays wanted";
}

TEST_F(StopWatchTest, SigintStops)
{
    setLongLimit();
    ::kill(::getpid(), SIGINT);
    EXPECT_TRUE(m_watch.wait(LONG).stop);
    EXPECT_EQ("SIGINT", m_watch.stopReason());
}

TEST_F(StopWatchTest, TheServiceStops)
{
    setLongLimit();
    StopWatch::serviceAsksToStop();
    EXPECT_TRUE(m_watch.wait(LONG).stop);
    EXPECT_EQ("the service", m_watch.stopReason());
}

TEST_F(StopWatchTest, SighupReloadsOnce)
{
    ::kill(::getpid(), SIGHUP);
    const StopWatch::Wish wish = m_watch.wait(LONG);
    EXPECT_TRUE(wish.reload);
    EXPECT_FALSE(wish.stop);
    EXPECT_FALSE(m_watch.wait(0ms).reload);
}

TEST_F(StopWatchTest, TheFirstReasonStands)
{
    setLongLimit();
    m_watch.askToStop("one");
    m_watch.askToStop("two");
    ::kill(::getpid(), SIGTERM);
    EXPECT_TRUE(m_watch.wait(LONG).stop);
    EXPECT_EQ("one", m_watch.stopReason());
}

TEST_F(StopWatchTest, ALateStopNamesTheStep)
{
    m_watch.setLimit(3);
    m_watch.setStep("doStop");
    m_watch.askToStop("test");
    EXPECT_EQ("The stop did not finish within 3 seconds, waiting for: doStop", lateText());
}

TEST_F(StopWatchTest, OneSecondIsSingular)
{
    m_watch.setLimit(1);
    m_watch.setStep("doExit");
    m_watch.askToStop("test");
    EXPECT_EQ("The stop did not finish within 1 second, waiting for: doExit", lateText());
}

TEST_F(StopWatchTest, TheLimitRunsFromASignalWhateverTheMainThreadDoes)
{
    m_watch.setLimit(2);
    m_watch.setStep("doRun");
    ::kill(::getpid(), SIGTERM);
    EXPECT_EQ("The stop did not finish within 2 seconds, waiting for: doRun", lateText());
}

TEST_F(StopWatchTest, AStopKeepsTheLimitItBeganWith)
{
    m_watch.setLimit(2);
    m_watch.askToStop("test");
    m_watch.setLimit(60000);
    EXPECT_EQ("The stop did not finish within 2 seconds, waiting for: the start", lateText());
}

TEST_F(StopWatchTest, AHugeLimitIsNoOverflow)
{
    m_watch.setLimit(~std::uint64_t{0});
    m_watch.askToStop("test");
    auto late = m_late.get_future();
    EXPECT_EQ(std::future_status::timeout, late.wait_for(0ms));
    EXPECT_TRUE(m_watch.wait(0ms).stop);
}

TEST(StopWatch, WithoutAWatchTheServicesWishIsLost)
{
    StopWatch::blockSignals();
    StopWatch::serviceAsksToStop();
    {
        StopWatch watch(1s, [](const std::string&) {});
    }
    StopWatch::serviceAsksToStop(); // its descriptor is gone
    StopWatch watch(1s, [](const std::string&) {});
    EXPECT_FALSE(watch.wait(0ms).stop);
}

TEST(StopWatch, ASignalFromBeforeIsNotLost)
{
    StopWatch::blockSignals();
    ::kill(::getpid(), SIGTERM);
    StopWatch watch(1s, [](const std::string&) {});
    EXPECT_TRUE(watch.wait(60s).stop);
}

} // namespace
