// The framework that binds the service to an ORB.

#include "DiscoveryFramework.h"

#include <DiscoverySvc.hh>

#include <gtest/gtest.h>

#include "ServiceFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::Lines;
using QmTest::LogCapture;
using Framework = AutoDereference<DiscoveryFramework>;

struct DiscoveryFrameworkTest : testing::Test
{
    DiscoveryFrameworkTest()
    {
        HostConfig::instance().setRoot(root.path().string());
        HostConfig::instance().readText("SERVER = localhost\n", "qm.conf");
    }
    void makeOrb(bool evictor = true)
    {
        orb = std::make_unique<Orb>(false, "127.0.0.1:0", "DiscoveryService", evictor, 16);
    }

    QmTest::TemporaryDirectory root;
    std::unique_ptr<Orb> orb;
};

TEST_F(DiscoveryFrameworkTest, TypeZeroSetsTheRepositorysFrameworkAndDoesNothingElse)
{
    const Framework framework(new DiscoveryFramework("name", DST_NO_SERVANT, nullptr, false));
    const AssertionCapture assertions;
    EXPECT_TRUE(framework->init());
    EXPECT_EQ(getDiscoveryRepository()->getDSName(), TlxString("name"));
    EXPECT_EQ(getDiscoveryRepository()->getDSType(), DST_NO_SERVANT);
    EXPECT_TRUE(CORBA::is_nil(framework->getPOA()));
    EXPECT_TRUE(framework->shutdown());
    framework->fini();
    EXPECT_EQ(assertions.texts(), Lines{});
    // The repository was not shut down with it.
    getDiscoveryRepository()->fini();
    EXPECT_EQ(assertions.texts(), Lines{"m_shuttingDown"});
}

TEST_F(DiscoveryFrameworkTest, BringsServantAndStoreUp)
{
    makeOrb();
    const Framework framework(new DiscoveryFramework("", DST_GENERIC, orb.get(), true));
    EXPECT_FALSE(orb->isPostAdvertised());
    EXPECT_TRUE(framework->init());
    EXPECT_TRUE(orb->isPostAdvertised());
    EXPECT_TRUE(std::filesystem::exists(root.path() / "db" / "discovery" / "Update.lock"));
    orb->serveRequests();
    HostConfig::instance().readText("ENDPOINT.here = " + orb->getEndpoint() + "\n", "qm.conf");
    {
        const CORBA::Object_var found = orb->lookupObject(
            TlxHostname(TlxString("here")), "DiscoveryService", std::chrono::seconds(5));
        const Remote::DiscoveryService_var service = Remote::DiscoveryService::_narrow(found);
        EXPECT_FALSE(CORBA::is_nil(service));
    }
    EXPECT_TRUE(framework->shutdown());
    framework->fini();
}

TEST_F(DiscoveryFrameworkTest, TwoInitsNeedTwoFinis)
{
    makeOrb();
    const Framework framework(new DiscoveryFramework("", DST_GENERIC, orb.get(), true));
    const AssertionCapture assertions;
    EXPECT_TRUE(framework->init());
    EXPECT_TRUE(framework->init());
    EXPECT_TRUE(framework->shutdown());
    const LogCapture log(LOG_LEVEL_TRACE);
    const auto repositoryHasEnded = [&log] {
        const auto lines = log.lines();
        return std::any_of(lines.begin(), lines.end(), [](const LogCapture::Line& line) {
            return line.operation == "DiscoveryRepository::fini";
        });
    };
    framework->fini();
    EXPECT_FALSE(repositoryHasEnded());
    framework->fini();
    EXPECT_TRUE(repositoryHasEnded());
    EXPECT_EQ(assertions.texts(), Lines{});
    framework->fini();
    EXPECT_EQ(assertions.texts(), Lines{"m_init"});
}

TEST_F(DiscoveryFrameworkTest, ASecondShutdownIsReported)
{
    makeOrb();
    const Framework framework(new DiscoveryFramework("", DST_GENERIC, orb.get(), false));
    framework->init();
    framework->shutdown();
    const AssertionCapture assertions;
    EXPECT_TRUE(framework->shutdown());
    EXPECT_EQ(assertions.texts(), Lines{"!m_shutdown"});
}

TEST_F(DiscoveryFrameworkTest, FiniBeforeShutdownOrWithoutInitIsReported)
{
    makeOrb();
    const Framework framework(new DiscoveryFramework("", DST_GENERIC, orb.get(), false));
    const AssertionCapture assertions;
    framework->fini();
    EXPECT_EQ(assertions.texts(), (Lines{"m_shutdown", "m_init"}));
}

TEST_F(DiscoveryFrameworkTest, ShutdownWithoutAServantStillEndsEvictorAndRepository)
{
    makeOrb();
    const Framework framework(new DiscoveryFramework("", DST_GENERIC, orb.get(), false));
    framework->shutdown();
    const AssertionCapture assertions;
    getDiscoveryRepository()->fini();
    EXPECT_EQ(assertions.texts(), Lines{});
    const CORBA::Object_var object = orb->getOrb()->resolve_initial_references("RootPOA");
    const PortableServer::POA_var poa = PortableServer::POA::_narrow(object);
    const PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId("x");
    EXPECT_THROW(orb->getEvictor().addObject(TlxObjTime(1, 0), poa, id, PortableServer::ObjectId()),
                 CORBA::Exception);
}

TEST_F(DiscoveryFrameworkTest, AnOrbWithoutAnEvictorIsReported)
{
    makeOrb(false);
    const Framework framework(new DiscoveryFramework("", DST_GENERIC, orb.get(), false));
    const AssertionCapture assertions;
    framework->init();
    EXPECT_EQ(assertions.texts(), Lines{"m_orb->isEvictorEnabled()"});
    framework->shutdown();
    framework->fini();
}

TEST_F(DiscoveryFrameworkTest, AFailedActivationIsLoggedAndThrownOn)
{
    makeOrb();
    {
        const CORBA::Object_var object = orb->getOrb()->resolve_initial_references("RootPOA");
        const PortableServer::POA_var poa = PortableServer::POA::_narrow(object);
        poa->destroy(false, true);
    }
    const Framework framework(new DiscoveryFramework("", DST_GENERIC, orb.get(), false));
    LogCapture log;
    EXPECT_THROW(framework->init(), CORBA::SystemException);
    ASSERT_EQ(log.texts(1).size(), 1u);
    EXPECT_EQ(log.texts(1)[0], "Caught corba exception activating DiscoveryService servant, Corba "
                               "exception: OBJECT_NOT_EXIST");
    EXPECT_FALSE(std::filesystem::exists(root.path() / "db"));
    framework->shutdown();
    const AssertionCapture assertions;
    framework->fini();
    EXPECT_EQ(assertions.texts(), Lines{"m_init"});
}

TEST_F(DiscoveryFrameworkTest, WithoutAnOrbNothingIsAnswered)
{
    const Framework framework(new DiscoveryFramework("", DST_GENERIC, nullptr, false));
    const AssertionCapture assertions;
    EXPECT_EQ(framework->getOrb(), nullptr);
    EXPECT_FALSE(framework->init());
    EXPECT_EQ(assertions.texts(), (Lines{"0 != m_orb", "0 != m_orb"}));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
