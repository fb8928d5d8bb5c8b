// The framework that binds the service to an ORB.

#include "DiscoveryFramework.h"

#include <filesystem>
#include <functional>
#include <string>

#include <DiscoverySvc.hh>

#include <gtest/gtest.h>

#include "DiscoveryIterator_i.h"
#include "ExplorerFixture.h"
#include "OpenObjects.h"
#include "RemoteWriter_i.h"
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
        orb = std::make_unique<Orb>(false, "127.0.0.1:0", "DiscoveryService", evictor);
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
    // The framework did not shut the repository down.
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
        const auto found = orb->lookupObject({.host = TlxHostname(TlxString("here")),
                                              .name = "DiscoveryService",
                                              .limit = std::chrono::seconds(5)});
        ASSERT_TRUE(found) << found.error().cause;
        const Remote::DiscoveryService_var service = Remote::DiscoveryService::_narrow(*found);
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
                 CORBA::BAD_INV_ORDER);
}

/// A servant that runs a function when its POA ends.
struct Witness : Remote::DiscoveryIterator_i
{
    explicit Witness(std::function<void()> end)
        : DiscoveryIterator_i(nullptr), onEnd(std::move(end))
    {
    }
    ~Witness() override { onEnd(); }
    const std::function<void()> onEnd;
};

TEST_F(DiscoveryFrameworkTest, TheShutdownEndsTheEvictorThePoaTheWritersAndThenTheExplorers)
{
    makeOrb();
    const Framework framework(new DiscoveryFramework("", DST_GENERIC, orb.get(), false));
    ASSERT_TRUE(framework->init());
    const auto state = [this] {
        std::string text = getDiscoveryRepository()->isShuttingDown() ? "the end is announced"
                                                                      : "nothing is announced";
        try {
            orb->getEvictor().addObject(TlxObjTime(1, 0), PortableServer::POA::_nil(),
                                        PortableServer::ObjectId(), PortableServer::ObjectId());
            text += ", evictor accepts";
        } catch (const CORBA::BAD_INV_ORDER&) { // after its shutdown
        } catch (const CORBA::Exception&) {
            text += ", evictor accepts";
        }
        if (std::filesystem::exists(root.path() / "db" / "discovery" / "0.updating"))
            text += ", writer is open";
        return text;
    };
    Lines ends;

    PortableServer::Servant_var<Witness> witness(
        new Witness([&] { ends.push_back("POA: " + state()); }));
    const CORBA::Object_var reference = orb->activateServant(witness.in());
    witness = nullptr;
    Remote::Discovery record{};
    record.queryType = DQ_DISCOVERY_DATA;
    record.subject = "cl1";
    record.authority = "srv1";
    record.authType = AT_QMKSERVER;
    record.attributes = {CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, 1, 0, 0};
    {
        const PortableServer::Servant_var<Remote::RemoteWriter_i> writer(
            new Remote::RemoteWriter_i(record));
        auto admission = Remote::openObjects().admit(Remote::OpenKind::Writer, *writer.in());
        EXPECT_EQ(writer->open().discStatus, DS_SUCCESS);
        const CORBA::Object_var activated = admission.activate();
        admission.keep();
    }
    const AutoDereference<QmTest::FakePush> explorer(new QmTest::FakePush);
    explorer->onStop = [&] { ends.push_back("explorer: " + state()); };
    const Subject subject("s");
    getDiscoveryRepository()->registerExplorer(
        &subject, static_cast<const ExplorerPush*>(explorer.get()), 1u, nullptr);
    ASSERT_EQ(state(), "nothing is announced, evictor accepts, writer is open");

    framework->shutdown();
    EXPECT_EQ(ends, (Lines{"POA: the end is announced, writer is open",
                           "explorer: the end is announced"}));
    framework->fini();
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
