// A service's whole life in the daemon: the order of the hooks, every way to fail, every way to
// stop.

#include "Daemon.h"

#include <csignal>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <tlx/Corba.h>
#include <tlx/HostConfig.h>

#include "FakeService.h"
#include "TestRoot.h"
#include "support/Capture.h"

using namespace Veltrane::Quillmark;
using namespace Veltrane::Quillmark::Qmdisco;
using namespace std::chrono_literals;
using QmTest::FakeService;
using QmTest::LogCapture;
using QmTest::Script;
using QmTest::TestRoot;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

namespace {

/// More refreshes than a test needs, so that one that waits in vain ends.
constexpr int MANY = 20000;

class DaemonTest : public testing::Test
{
  protected:
    DaemonTest()
    {
        m_options.foreground = true;
        m_hosted.makeService = [this](bool) {
            if (m_inConstruction)
                m_inConstruction();
            return std::make_unique<FakeService>(m_script);
        };
        m_hosted.counters = [this] {
            ++m_refreshes;
            if (m_onRefresh)
                m_onRefresh();
            return Counters{{"refreshes", m_showRefreshes ? m_refreshes : 0}};
        };
        m_hosted.statusInterval = 1ms;
        m_hosted.second = 10min; // a stop that is not about the limit has time
    }

    int run() { return Daemon(m_options, m_hosted, StartReport()).run(); }
    std::string pidText() const { return std::to_string(::getpid()); }
    nlohmann::json status() const
    {
        return nlohmann::json::parse(m_root.read("run/status.json"), nullptr, false);
    }
    static void askToStop()
    {
        if (Tlx::OrbService* const service = Tlx::OrbService::Instance())
            service->stopByEvent(false);
    }
    /// What was logged at level 1.
    std::vector<std::string> failures() const { return m_log.texts(Tlx::LOG_LEVEL_FAILURE); }

    void expectFailure(int code, const std::string& text)
    {
        EXPECT_EQ(code, run());
        EXPECT_THAT(failures(),
                    ElementsAre(text, "qmdisco " + std::string(version()) + " stopped"));
        EXPECT_EQ("", m_root.read("run/qmdisco.pid"));
        EXPECT_FALSE(m_root.exists("run/status.json"));
    }

    TestRoot m_root;
    LogCapture m_log;
    Script m_script;
    Options m_options;
    Hosted m_hosted;
    std::function<void()> m_inConstruction;
    std::function<void()> m_onRefresh;
    unsigned m_refreshes = 0;
    bool m_showRefreshes = false;
};

TEST_F(DaemonTest, HooksAreCalledInOrder)
{
    EXPECT_EQ(EC_OK, run());
    EXPECT_THAT(m_script.calls, ElementsAre("doShouldStart", "doPreInit", "doInit", "doRun",
                                            "doStop", "doExit", "destroyed"));
    EXPECT_THAT(failures(), ElementsAre("Fake Service is up (client, pid " + pidText() + ", " +
                                            m_root.path() + ")",
                                        "Fake Service is stopping, asked for by the service",
                                        "qmdisco " + std::string(version()) + " stopped"));
}

TEST_F(DaemonTest, ThePidFileHoldsThePidWhileTheServiceLives)
{
    std::string first, last;
    m_script.in["doShouldStart"] = [&] { first = m_root.read("run/qmdisco.pid"); };
    m_script.in["doExit"] = [&] { last = m_root.read("run/qmdisco.pid"); };
    EXPECT_EQ(EC_OK, run());
    EXPECT_EQ(pidText() + "\n", first);
    EXPECT_EQ(pidText() + "\n", last);
    EXPECT_EQ("", m_root.read("run/qmdisco.pid"));
}

TEST_F(DaemonTest, TheStatusTellsTheState)
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

TEST_F(DaemonTest, TheStatusFollowsTheCounters)
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

TEST_F(DaemonTest, CountersThatThrowDoNotEndIt)
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

TEST_F(DaemonTest, AServiceThatIsNotWantedEndsWell)
{
    // As the discovery service decides it.
    m_root.write("etc/qm.conf", "REPORT_CLIENT_DISCOVERIES = FALSE\n");
    m_script.in["doShouldStart"] = [this] {
        bool report = true;
        EXPECT_EQ(0, Tlx::QM_read_master_config());
        EXPECT_EQ(0, Tlx::QM_get_config_boolean("REPORT_CLIENT_DISCOVERIES", report));
        m_script.wanted = report;
    };
    expectFailure(EC_OK, "Fake Service is not wanted on this host");
    EXPECT_THAT(m_script.calls, ElementsAre("doShouldStart", "destroyed"));
}

TEST_F(DaemonTest, InTheBackgroundAServiceThatIsNotWantedIsTold)
{
    m_options.foreground = false;
    m_script.wanted = false;
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_OK, run());
    EXPECT_EQ("qmdisco: Fake Service is not wanted on this host\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(DaemonTest, AConstructionThatFails)
{
    m_inConstruction = [] { throw std::runtime_error("no memory"); };
    expectFailure(EC_SERVICE_FAILED, "construction failed: no memory");
    EXPECT_THAT(m_script.calls, ElementsAre());
}

TEST_F(DaemonTest, AHookThatThrowsBeforeTheServiceRuns)
{
    m_script.in["doInit"] = [] { throw std::runtime_error("out of luck"); };
    expectFailure(EC_SERVICE_FAILED, "doInit failed: out of luck");
    EXPECT_THAT(m_script.calls, ElementsAre("doShouldStart", "doPreInit", "doInit", "destroyed"));
}

TEST_F(DaemonTest, DoShouldStartThatThrows)
{
    m_script.in["doShouldStart"] = [] { throw std::runtime_error("x"); };
    expectFailure(EC_SERVICE_FAILED, "doShouldStart failed: x");
}

TEST_F(DaemonTest, DoPreInitThatThrows)
{
    m_script.in["doPreInit"] = [] { throw std::runtime_error("x"); };
    expectFailure(EC_SERVICE_FAILED, "doPreInit failed: x");
}

TEST_F(DaemonTest, DoRunThatFailsIsTakenDownInOrder)
{
    m_script.runAnswer = -1;
    expectFailure(EC_SERVICE_FAILED, "Fake Service did not come up: doRun answered -1");
    EXPECT_THAT(m_script.calls, ElementsAre("doShouldStart", "doPreInit", "doInit", "doRun",
                                            "doStop", "destroyed"));
}

TEST_F(DaemonTest, DoRunThatCannotListen)
{
    m_script.in["doRun"] = [] { throw Tlx::OrbError("cannot listen on 0.0.0.0:1"); };
    expectFailure(EC_CANNOT_LISTEN, "cannot listen on 0.0.0.0:1");
    EXPECT_THAT(m_script.calls, ElementsAre("doShouldStart", "doPreInit", "doInit", "doRun",
                                            "doStop", "destroyed"));
}

TEST_F(DaemonTest, DoRunThatThrowsACorbaException)
{
    m_script.in["doRun"] = [] { throw CORBA::COMM_FAILURE(); };
    expectFailure(EC_SERVICE_FAILED, "doRun failed: CORBA exception COMM_FAILURE");
}

TEST_F(DaemonTest, AStopThatFailsGoesOn)
{
    m_script.in["doStop"] = [] { throw CORBA::BAD_INV_ORDER(); };
    EXPECT_EQ(EC_UNEXPECTED, run());
    EXPECT_THAT(failures(), Contains("doStop failed: CORBA exception BAD_INV_ORDER"));
    EXPECT_THAT(m_script.calls, ElementsAre("doShouldStart", "doPreInit", "doInit", "doRun",
                                            "doStop", "doExit", "destroyed"));
    EXPECT_EQ("stopped", status()["state"]);
}

TEST_F(DaemonTest, SigtermStopsInOrder)
{
    m_script.stopsAtOnce = false;
    m_script.in["doRun"] = [] { ::kill(::getpid(), SIGTERM); };
    // A second one while it stops breaks nothing.
    m_script.in["doStop"] = [] { ::kill(::getpid(), SIGTERM); };
    EXPECT_EQ(EC_OK, run());
    EXPECT_THAT(failures(), Contains("Fake Service is stopping, asked for by SIGTERM"));
    EXPECT_THAT(m_script.calls, ElementsAre("doShouldStart", "doPreInit", "doInit", "doRun",
                                            "doStop", "doExit", "destroyed"));
}

TEST_F(DaemonTest, SigintStopsInOrder)
{
    m_script.stopsAtOnce = false;
    m_script.in["doRun"] = [] { ::kill(::getpid(), SIGINT); };
    EXPECT_EQ(EC_OK, run());
    EXPECT_THAT(failures(), Contains("Fake Service is stopping, asked for by SIGINT"));
}

TEST_F(DaemonTest, ABrokenPipeDoesNotEndIt)
{
    m_script.in["doRun"] = [] {
        int ends[2];
        ASSERT_EQ(0, ::pipe(ends));
        ::close(ends[0]);
        EXPECT_EQ(-1, ::write(ends[1], "x", 1));
        ::close(ends[1]);
    };
    EXPECT_EQ(EC_OK, run());
}

TEST_F(DaemonTest, SighupTakesTheLogLevelAnew)
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

TEST_F(DaemonTest, TheCommandLinesLogLevelGoesFirst)
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

TEST_F(DaemonTest, ProblemsOfTheConfigurationAreLoggedAndTheDefaultsHold)
{
    m_root.write("etc/qm.conf", "STOP_LIMIT = soon\n");
    EXPECT_EQ(EC_OK, run());
    EXPECT_EQ(m_root.path("etc/qm.conf") +
                  ":1: STOP_LIMIT: 'soon' is not a number, expected 1 to 3600",
              failures().at(0));
}

TEST_F(DaemonTest, AnAbsentConfigurationIsLeftToTheService)
{
    m_options.logLevel = 4;
    EXPECT_EQ(EC_OK, run());
    const std::string line =
        m_root.path("etc/qm.conf") + ": cannot be read: No such file or directory";
    EXPECT_THAT(failures(), Not(Contains(line)));
    EXPECT_TRUE(m_log.has(Tlx::LOG_LEVEL_PROGRESS, line));
}

TEST_F(DaemonTest, TheLogIsInTheRoot)
{
    Tlx::LoggerFactory::instance().setSink(nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_OK, run());
    const std::string shown = testing::internal::GetCapturedStderr();
    EXPECT_THAT(shown, testing::HasSubstr("asked for by the service"));
    EXPECT_EQ(shown, m_root.read("logs/qmdisco.log"));
}

TEST_F(DaemonTest, InTheBackgroundTheLogIsInTheFileOnly)
{
    Tlx::LoggerFactory::instance().setSink(nullptr);
    m_options.foreground = false;
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_OK, run());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_THAT(m_root.read("logs/qmdisco.log"), testing::HasSubstr("asked for by the service"));
}

TEST_F(DaemonTest, AFailureInTheBackgroundIsAlsoTold)
{
    m_options.foreground = false;
    m_script.runAnswer = -1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_SERVICE_FAILED, run());
    EXPECT_EQ("qmdisco: Fake Service did not come up: doRun answered -1\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(DaemonTest, ASilentLogDoesNotHideAFailure)
{
    m_options.logLevel = 0;
    m_script.runAnswer = -1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_SERVICE_FAILED, run());
    EXPECT_EQ("qmdisco: Fake Service did not come up: doRun answered -1\n",
              testing::internal::GetCapturedStderr());
    EXPECT_THAT(m_log.lines(), testing::IsEmpty());
}

TEST_F(DaemonTest, ASecondDaemonIsRefusedAndTouchesNothing)
{
    m_root.makeDirectory("run");
    Failure ignored;
    const auto held = PidFile::take(m_root.path(), ignored);
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_ALREADY_RUNNING, run());
    EXPECT_EQ("qmdisco: another qmdisco is running on " + m_root.path() + " (pid " + pidText() +
                  ")\n",
              testing::internal::GetCapturedStderr());
    EXPECT_THAT(m_script.calls, ElementsAre());
    EXPECT_FALSE(m_root.exists("logs/qmdisco.log"));
    EXPECT_EQ(pidText() + "\n", m_root.read("run/qmdisco.pid"));
}

TEST_F(DaemonTest, ARootThatCannotBeMadeIsRefused)
{
    m_root.write("run", "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_ROOT_UNUSABLE, run());
    EXPECT_EQ("qmdisco: cannot make the directory " + m_root.path("run") +
                  ": Not a directory; a root that qmdisco can write is expected (--root DIR)\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(DaemonTest, ALogThatCannotBeOpenedIsRefused)
{
    m_root.makeDirectory("logs/qmdisco.log");
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_ROOT_UNUSABLE, run());
    EXPECT_EQ("qmdisco: Cannot open log file " + m_root.path("logs/qmdisco.log") +
                  ": Is a directory\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ("", m_root.read("run/qmdisco.pid"));
}

TEST_F(DaemonTest, AStatusThatCannotBeWrittenIsToldOnceAndAgainWhenItCan)
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

TEST_F(DaemonTest, TheServiceManagerIsTold)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = m_root.path("notify");
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    ::setenv("WATCHDOG_USEC", "2000", 1);
    m_script.stopsAtOnce = false;
    m_onRefresh = [&] {
        if (m_refreshes == 3)
            askToStop();
    };
    EXPECT_EQ(EC_OK, run());
    std::vector<std::string> told;
    char text[1000];
    for (ssize_t n; (n = ::recv(socket, text, sizeof text, 0)) >= 0;)
        told.emplace_back(text, static_cast<std::size_t>(n));
    ::close(socket);
    ASSERT_GE(told.size(), 3u);
    EXPECT_EQ("READY=1\nSTATUS=Fake Service is up (client, pid " + pidText() + ", " +
                  m_root.path() + ")",
              told.front());
    EXPECT_EQ("WATCHDOG=1", told[1]);
    EXPECT_EQ("STOPPING=1\nSTATUS=stopping, asked for by the service", told.back());
}

/// What a plug-in that hangs looks like.
[[noreturn]] void hang()
{
    for (;;)
        ::pause();
}

class DaemonDeathTest : public DaemonTest
{
  protected:
    DaemonDeathTest()
    {
        m_root.write("etc/qm.conf", "STOP_LIMIT = 2\n");
        m_hosted.second = 50ms;
        // No status is written: its sync could take longer than this short limit.
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
    // The hook hangs inside the log's sink, whose lock it holds.
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

class ProgramTest : public DaemonTest
{
  protected:
    int program(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "qmdisco");
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        return runProgram(static_cast<int>(arguments.size()), argv.data(), m_hosted);
    }
};

TEST_F(ProgramTest, ARelativeRootIsMadeAbsolute)
{
    m_root.makeDirectory("sub");
    ASSERT_EQ(0, ::chdir(m_root.path().c_str()));
    const std::string here = std::filesystem::current_path().string();
    EXPECT_EQ(EC_OK, program({"--foreground", "--root", "sub"}));
    EXPECT_EQ(here + "/sub", nlohmann::json::parse(m_root.read("sub/run/status.json"))["root"]);
}

TEST_F(ProgramTest, CheckConfigStartsNothing)
{
    m_root.write("etc/qm.conf", "LOG_LEVEL = high\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(EC_CONFIGURATION, program({"--check-config", "--root", m_root.path()}));
    EXPECT_EQ(m_root.path("etc/qm.conf") +
                  ":1: LOG_LEVEL: 'high' is not a number, expected 0 to 9\n",
              testing::internal::GetCapturedStdout());
    EXPECT_THAT(m_script.calls, ElementsAre());
    EXPECT_FALSE(m_root.exists("run"));
}

TEST_F(ProgramTest, AWrongOptionIsOneLineOnStandardError)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_USAGE, program({"--nonsense"}));
    EXPECT_EQ("qmdisco: The following argument was not expected: --nonsense (\"qmdisco --help\" "
              "shows the options)\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(ProgramTest, HelpGoesToStandardOutput)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(EC_OK, program({"--help"}));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr("Exit codes:"));
    EXPECT_FALSE(m_root.exists("run"));
}

} // namespace
