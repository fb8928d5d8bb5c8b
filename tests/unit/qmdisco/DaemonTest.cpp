// A service's whole life in the daemon: the order of the hooks, each failure, each kind of stop.

#include "Daemon.h"

#include <csignal>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tlx/Corba.h>
#include <tlx/HostConfig.h>

#include "DaemonFixture.h"

using namespace Veltrane::Quillmark;
using namespace Veltrane::Quillmark::Qmdisco;
using testing::Contains;
using testing::ElementsAre;

namespace {

using DaemonTest = QmTest::DaemonFixture;

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

TEST_F(DaemonTest, AServiceThatIsNotWantedEndsWell)
{
    // The discovery service decides it in the same way.
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

TEST_F(DaemonTest, InTheBackgroundAnUnwantedServiceIsReportedOnStandardError)
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

TEST_F(DaemonTest, DoRunThatCannotUseTls)
{
    m_script.in["doRun"] = [] { throw Tlx::OrbConfigError("TLS_KEY is not set. TLS needs it"); };
    expectFailure(EC_CONFIGURATION, "TLS_KEY is not set. TLS needs it");
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
    // A second signal during the stop does no harm.
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

TEST_F(DaemonTest, ASecondDaemonIsRefusedAndTouchesNothing)
{
    m_root.makeDirectory("run");
    const auto held = PidFile::take(m_root.path());
    ASSERT_TRUE(held) << held.error().text;
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
} // namespace
