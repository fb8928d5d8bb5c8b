// The service object that the host drives.

#include "DiscoverySvc.h"

#include <fstream>

#include <gtest/gtest.h>

#include "ServiceFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::Lines;
using QmTest::LogCapture;

struct DiscoverySvcTest : testing::Test
{
    DiscoverySvcTest() { HostConfig::instance().setRoot(root.path().string()); }
    void configure(const std::string& text)
    {
        std::filesystem::create_directories(root.path() / "etc");
        std::ofstream(root.path() / "etc" / "qm.conf") << text;
    }
    QmTest::TemporaryDirectory root;
};

TEST_F(DiscoverySvcTest, IsWhatItIsCalled)
{
    const DiscoverySvc service(true);
    EXPECT_EQ(service.getServiceName(), "DiscoveryService");
    EXPECT_EQ(service.getDisplayName(), "Discovery Service");
    EXPECT_TRUE(service.isUTF8CharCodeSetEnabled());
}

TEST_F(DiscoverySvcTest, StartsWhenReportingIsNotConfigured)
{
    configure("SERVER = localhost\n");
    DiscoverySvc service(true);
    const LogCapture log;
    EXPECT_TRUE(service.doShouldStart());
    EXPECT_EQ(log.lines().size(), 0u);
}

TEST_F(DiscoverySvcTest, StartsWhenReportingIsOn)
{
    configure("REPORT_CLIENT_DISCOVERIES = TRUE\n");
    DiscoverySvc service(true);
    EXPECT_TRUE(service.doShouldStart());
}

TEST_F(DiscoverySvcTest, DoesNotStartWhenReportingIsOffAndSaysSoOnce)
{
    configure("REPORT_CLIENT_DISCOVERIES = FALSE\n");
    DiscoverySvc service(true);
    const LogCapture log;
    EXPECT_FALSE(service.doShouldStart());
    EXPECT_EQ(log.texts(4),
              Lines{"Shutting down qmdisco as directed by REPORT_CLIENT_DISCOVERIES=FALSE"});
    EXPECT_EQ(log.texts(1), Lines{});
}

TEST_F(DiscoverySvcTest, StartsWhenTheConfigurationCannotBeRead)
{
    DiscoverySvc service(true);
    const LogCapture log;
    EXPECT_TRUE(service.doShouldStart());
    Lines own;
    for (const auto& line : log.lines())
        if (line.originator == 400)
            own.push_back(line.operation + ": " + line.text);
    EXPECT_EQ(own, Lines{"DiscoverySvc::doShouldStart: Failed to read config"});
}

TEST_F(DiscoverySvcTest, StoppingWhatNeverRanDoesNothing)
{
    DiscoverySvc service(true);
    const AssertionCapture assertions;
    const LogCapture log;
    service.doInit();
    service.doStop();
    service.doExit();
    EXPECT_EQ(assertions.texts(), Lines{});
    EXPECT_EQ(log.lines().size(), 0u);
}

TEST_F(DiscoverySvcTest, RunsStopsAndExits)
{
    configure("SERVER = localhost\nLISTEN = 127.0.0.1:0\n");
    const AssertionCapture assertions;
    {
        DiscoverySvc service(true);
        ASSERT_TRUE(service.doShouldStart());
        service.doPreInit();
        service.doInit();
        ASSERT_EQ(service.doRun(), 0);
        EXPECT_EQ(getAceReactor(), service.getOrb()->getReactor());
        EXPECT_TRUE(service.getOrb()->isEvictorEnabled());
        EXPECT_TRUE(service.getOrb()->isPostAdvertised());
        EXPECT_TRUE(std::filesystem::exists(root.path() / "db" / "discovery"));
        service.doStop();
        service.doExit();
    }
    EXPECT_EQ(assertions.texts(), Lines{});
    EXPECT_EQ(getAceReactor(), nullptr);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
