// The stop limit ends a daemon that hangs.

#include "Daemon.h"

#include <csignal>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DaemonFixture.h"

using namespace Veltrane::Quillmark;
using namespace Veltrane::Quillmark::Qmdisco;
using namespace std::chrono_literals;

namespace {

/// Behaves like a plug-in that hangs.
[[noreturn]] void hang()
{
    for (;;)
        ::pause();
}

class DaemonDeathTest : public QmTest::DaemonFixture
{
  protected:
    DaemonDeathTest()
    {
        m_root.write("etc/qm.conf", "STOP_LIMIT = 2\n");
        m_hosted.second = 50ms;
        // So no status can be written. Its sync could take longer than this short limit.
        m_root.makeDirectory("run/status.json.tmp");
    }
    void runAndEnd()
    {
        Tlx::LoggerFactory::instance().setSink(nullptr);
        ::_exit(run());
    }
};

TEST_F(DaemonDeathTest, AStopThatHangsEndsWithItsOwnCodeAndNamesTheStep)
{
    m_script.in["doStop"] = hang;
    EXPECT_EXIT(runAndEnd(), testing::ExitedWithCode(EC_STOP_LIMIT),
                "The stop did not finish within 2 seconds, waiting for: doStop");
    EXPECT_THAT(
        m_root.read("logs/qmdisco.log"),
        testing::ContainsRegex("The stop did not finish within 2 seconds, waiting for: doStop"));
}

TEST_F(DaemonDeathTest, AStartThatHangsCanBeStopped)
{
    m_script.in["doRun"] = [] {
        ::kill(::getpid(), SIGTERM);
        hang();
    };
    EXPECT_EXIT(runAndEnd(), testing::ExitedWithCode(EC_STOP_LIMIT),
                "The stop did not finish within 2 seconds, waiting for: doRun");
}

TEST_F(DaemonDeathTest, AFailedStartThatHangsOnItsWayDownEnds)
{
    m_script.runAnswer = -1;
    m_script.stopsAtOnce = false;
    m_script.in["doStop"] = hang;
    EXPECT_EXIT(runAndEnd(), testing::ExitedWithCode(EC_STOP_LIMIT),
                "The stop did not finish within 2 seconds, waiting for: doStop");
}

TEST_F(DaemonDeathTest, AHeldLogDoesNotKeepItFromEnding)
{
    // The hook hangs inside the log's sink and holds the sink's lock.
    struct HangingSink : Tlx::LogSink
    {
        void write(const Line&) override { hang(); }
    };
    m_hosted.lastLine = 5ms;
    m_script.in["doStop"] = [] {
        Tlx::LoggerFactory::instance().setSink(std::make_shared<HangingSink>());
        Tlx::LoggerFactory::instance().getLogger(1)->log("hook", 1, "text");
    };
    EXPECT_EXIT(runAndEnd(), testing::ExitedWithCode(EC_STOP_LIMIT), "");
}

} // namespace
