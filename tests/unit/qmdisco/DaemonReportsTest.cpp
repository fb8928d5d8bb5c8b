// The reports of the daemon: the status file, the log, standard error, the service manager.

#include "Daemon.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DaemonFixture.h"

using namespace Veltrane::Quillmark;
using namespace Veltrane::Quillmark::Qmdisco;
using QmTest::MANY;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

namespace {

using DaemonReportsTest = QmTest::DaemonFixture;

TEST_F(DaemonReportsTest, TheStatusFileHasTheState)
{
    m_root.write("etc/qm.conf", "SERVER = host1\nCLIENT_NAME = host1\nLOG_LEVEL = 2\n");
    std::string stopping;
    nlohmann::json running;
    m_script.stopsAtOnce = false;
    m_onRefresh = [&] {
        if (m_refreshes == 2) { // the first has been written
            running = status();
            askToStop();
        }
    };
    m_script.in["doStop"] = [&] { stopping = status()["state"]; };
    EXPECT_EQ(EC_OK, run());
    EXPECT_EQ("running", running["state"]);
    EXPECT_EQ(version(), running["version"]);
    EXPECT_EQ(::getpid(), running["pid"]);
    EXPECT_EQ("master", running["role"]);
    EXPECT_EQ("host1", running["host"]);
    EXPECT_EQ(m_root.path(), running["root"]);
    EXPECT_EQ(2, running["logLevel"]);
    EXPECT_EQ("", running["endpoint"]);
    EXPECT_EQ(0, running["requestsInProgress"]);
    EXPECT_EQ(0, running["counters"]["refreshes"]);
    EXPECT_EQ(25u, running["start"].get<std::string>().size());
    EXPECT_EQ("stopping", stopping);
    EXPECT_EQ("stopped", status()["state"]);
}

TEST_F(DaemonReportsTest, TheStatusFollowsTheCounters)
{
    m_script.stopsAtOnce = false;
    m_showRefreshes = true;
    unsigned seen = 0;
    m_onRefresh = [&] {
        if (m_refreshes > 1)
            seen = status()["counters"]["refreshes"];
        if (seen >= 3 || m_refreshes > MANY)
            askToStop();
    };
    EXPECT_EQ(EC_OK, run());
    EXPECT_GE(seen, 3u);
}

TEST_F(DaemonReportsTest, CountersThatThrowDoNotEndIt)
{
    m_script.stopsAtOnce = false;
    m_onRefresh = [&] {
        if (m_refreshes == 2) {
            askToStop();
            throw std::runtime_error("no counters");
        }
    };
    EXPECT_EQ(EC_OK, run());
    EXPECT_THAT(failures(), Contains("status.json failed: no counters"));
    EXPECT_EQ("stopped", status()["state"]);
}

TEST_F(DaemonReportsTest, SighupTakesTheLogLevelAnew)
{
    m_root.write("etc/qm.conf", "LOG_LEVEL = 2\n");
    m_script.stopsAtOnce = false;
    std::vector<int> levels;
    m_onRefresh = [&] {
        const int level = Tlx::LoggerFactory::instance().level();
        if (levels.empty() || levels.back() != level)
            levels.push_back(level);
        if (m_refreshes == 1) {
            m_root.write("etc/qm.conf", "LOG_LEVEL = 5\nWHAT = ever\n");
            ::kill(::getpid(), SIGHUP);
        }
        if (level == 5 || m_refreshes > MANY)
            askToStop();
    };
    EXPECT_EQ(EC_OK, run());
    EXPECT_THAT(levels, ElementsAre(2, 5));
    EXPECT_THAT(m_script.calls, Contains("doReconfig"));
    EXPECT_THAT(failures(), Contains(m_root.path("etc/qm.conf") + ":2: unknown key 'WHAT'"));
    EXPECT_TRUE(m_log.has(Tlx::LOG_LEVEL_PROGRESS, "The configuration was read again"));
}

TEST_F(DaemonReportsTest, SighupTakesTheSeverityAndTheBurstAnew)
{
    m_root.write("etc/qm.conf", "LOG_SEVERITY = warning\nLOG_BURST = 1\n");
    m_log.release();
    m_options.foreground = false;
    m_script.stopsAtOnce = false;
    const auto logTwice = [](const char* operation) {
        for (int i = 0; i < 2; ++i)
            Tlx::LoggerFactory::instance().getLogger(1)->write(
                {operation, 1, Tlx::LogSeverity::Notice, {operation, 1}}, "text");
    };
    m_onRefresh = [&] {
        const bool reloaded = Tlx::LoggerFactory::instance().severity() == Tlx::LogSeverity::Notice;
        if (m_refreshes == 1) {
            logTwice("hidden");
            m_root.write("etc/qm.conf", "LOG_SEVERITY = notice\nLOG_BURST = 0\n");
            ::kill(::getpid(), SIGHUP);
        }
        if (reloaded)
            logTwice("shown");
        if (reloaded || m_refreshes > MANY)
            askToStop();
    };
    EXPECT_EQ(EC_OK, run());
    const std::string log = m_root.read("logs/qmdisco.log");
    EXPECT_THAT(log, Not(testing::HasSubstr("hidden")));
    EXPECT_THAT(log, testing::ContainsRegex("shown .notice. text\n.*shown .notice. text\n"));
    EXPECT_EQ("", m_root.read("logs/qmdisco-errors.log"));
}

TEST_F(DaemonReportsTest, ErrorsHaveTheirOwnFileAndTheStatusCountsLines)
{
    m_root.write("etc/qm.conf", "LOG_BURST = 1\nWHAT = ever\nWHATEVER = else\n");
    m_log.release();
    m_options.foreground = false;
    m_script.stopsAtOnce = false;
    m_onRefresh = [&] {
        if (m_refreshes == 1)
            for (int i = 0; i < 5; ++i)
                Tlx::LoggerFactory::instance().getLogger(1)->log("flood", 1, "text");
        if (m_refreshes == 2)
            askToStop();
    };
    EXPECT_EQ(EC_OK, run());
    const std::string errors = m_root.read("logs/qmdisco-errors.log");
    EXPECT_THAT(errors, testing::HasSubstr("unknown key 'WHAT'"));
    EXPECT_THAT(errors, testing::HasSubstr("unknown key 'WHATEVER'")) << "a place of its own";
    EXPECT_THAT(errors, testing::HasSubstr("flood [error] text ... and 4 more like this\n"));
    EXPECT_THAT(errors, Not(testing::HasSubstr("Fake Service is")));
    EXPECT_THAT(m_root.read("logs/qmdisco.log"), testing::HasSubstr("[notice] Fake Service is up"));
    EXPECT_EQ(4, status()["counters"]["logLinesSummedUp"]);
    EXPECT_EQ(0, status()["counters"]["logLinesLost"]);
}

TEST_F(DaemonReportsTest, ANormalLifeHasOnlyNotices)
{
    EXPECT_EQ(EC_OK, run());
    ASSERT_FALSE(failures().empty());
    for (const std::string& text : failures())
        EXPECT_THAT(m_log.severities(text), testing::Each(Tlx::LogSeverity::Notice)) << text;
}

TEST_F(DaemonReportsTest, TheCommandLinesLogLevelGoesFirst)
{
    m_root.write("etc/qm.conf", "LOG_LEVEL = 2\n");
    m_options.logLevel = 3;
    m_script.stopsAtOnce = false;
    std::vector<int> levels;
    m_onRefresh = [&] {
        levels.push_back(Tlx::LoggerFactory::instance().level());
        if (m_refreshes == 1)
            ::kill(::getpid(), SIGHUP);
        const bool reloaded = !m_script.calls.empty() && m_script.calls.back() == "doReconfig";
        if (reloaded || m_refreshes > MANY)
            askToStop();
    };
    EXPECT_EQ(EC_OK, run());
    EXPECT_THAT(m_script.calls, Contains("doReconfig"));
    EXPECT_THAT(levels, Not(Contains(testing::Ne(3))));
}

TEST_F(DaemonReportsTest, ProblemsOfTheConfigurationAreLoggedAndTheDefaultsHold)
{
    m_root.write("etc/qm.conf", "STOP_LIMIT = soon\n");
    EXPECT_EQ(EC_OK, run());
    EXPECT_EQ(m_root.path("etc/qm.conf") +
                  ":1: STOP_LIMIT: 'soon' is not a number, expected 1 to 3600",
              failures().at(0));
}

TEST_F(DaemonReportsTest, AnAbsentConfigurationIsLeftToTheService)
{
    m_options.logLevel = 4;
    EXPECT_EQ(EC_OK, run());
    const std::string line =
        m_root.path("etc/qm.conf") + ": cannot be read: No such file or directory";
    EXPECT_THAT(failures(), Not(Contains(line)));
    EXPECT_TRUE(m_log.has(Tlx::LOG_LEVEL_PROGRESS, line));
}

TEST_F(DaemonReportsTest, TheLogIsInTheRoot)
{
    Tlx::LoggerFactory::instance().setSink(nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_OK, run());
    const std::string shown = testing::internal::GetCapturedStderr();
    EXPECT_THAT(shown, testing::HasSubstr("asked for by the service"));
    EXPECT_EQ(shown, m_root.read("logs/qmdisco.log"));
}

TEST_F(DaemonReportsTest, InTheBackgroundTheLogIsInTheFileOnly)
{
    Tlx::LoggerFactory::instance().setSink(nullptr);
    m_options.foreground = false;
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_OK, run());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_THAT(m_root.read("logs/qmdisco.log"), testing::HasSubstr("asked for by the service"));
}

TEST_F(DaemonReportsTest, AFailureInTheBackgroundGoesToStandardErrorToo)
{
    m_options.foreground = false;
    m_script.runAnswer = -1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_SERVICE_FAILED, run());
    EXPECT_EQ("qmdisco: Fake Service did not come up: doRun answered -1\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(DaemonReportsTest, ASilentLogDoesNotHideAFailure)
{
    m_options.logLevel = 0;
    m_script.runAnswer = -1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_SERVICE_FAILED, run());
    EXPECT_EQ("qmdisco: Fake Service did not come up: doRun answered -1\n",
              testing::internal::GetCapturedStderr());
    EXPECT_THAT(m_log.lines(), testing::IsEmpty());
}

TEST_F(DaemonReportsTest, AStatusThatCannotBeWrittenIsLoggedOnceAndItsRecoveryToo)
{
    m_root.makeDirectory("run/status.json.tmp");
    m_script.stopsAtOnce = false;
    m_showRefreshes = true;
    m_onRefresh = [&] {
        if (m_refreshes == 10)
            std::filesystem::remove(m_root.path("run/status.json.tmp"));
        if (m_refreshes == 12)
            askToStop();
    };
    EXPECT_EQ(EC_OK, run());
    const auto texts = failures();
    EXPECT_EQ(1,
              std::count(texts.begin(), texts.end(),
                         "cannot open " + m_root.path("run/status.json.tmp") + ": Is a directory"));
    EXPECT_EQ(1, std::count(texts.begin(), texts.end(), "The status is written again"));
    EXPECT_EQ("stopped", status()["state"]);
}

TEST_F(DaemonReportsTest, TheServiceManagerGetsEachState)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = m_root.path("notify");
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const timeval limit = {60, 0};
    ASSERT_EQ(0, ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit));
    ASSERT_EQ(0, ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    ::setenv("WATCHDOG_USEC", "2000", 1);
    // The kernel keeps only ten messages, and the next one waits. So this thread reads them while
    // the daemon runs.
    std::vector<std::string> messages;
    std::thread reader([&] {
        char text[1000];
        while (messages.empty() || !messages.back().starts_with("STOPPING=1")) {
            const ssize_t n = ::recv(socket, text, sizeof text, 0);
            if (n < 0)
                return;
            messages.emplace_back(text, static_cast<std::size_t>(n));
        }
    });
    m_script.stopsAtOnce = false;
    m_onRefresh = [&] {
        if (m_refreshes == 3)
            askToStop();
    };
    EXPECT_EQ(EC_OK, run());
    reader.join();
    ::close(socket);
    ASSERT_GE(messages.size(), 3u);
    EXPECT_EQ("READY=1\nSTATUS=Fake Service is up (client, pid " + pidText() + ", " +
                  m_root.path() + ")",
              messages.front());
    EXPECT_EQ("WATCHDOG=1", messages[1]);
    EXPECT_EQ("STOPPING=1\nSTATUS=stopping, asked for by the service", messages.back());
}
} // namespace
