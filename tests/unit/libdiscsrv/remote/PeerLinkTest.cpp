// The link to other hosts, without a repository.

#include "PeerLink.h"

#include "FakePeer.h"
#include "ServiceConnection.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::FakePeer;
using QmTest::Lines;
using QmTest::LogCapture;
using namespace std::chrono_literals;

/// A service that only has an ORB.
class Hosted : public HostedService
{
  public:
    explicit Hosted(Orb* orb) : m_orb(orb) {}
    const std::string& getName() const override { return m_name; }
    DiscoveryServiceType getType() const override { return DST_GENERIC; }
    Orb* getOrb() const override { return m_orb; }
    PortableServer::POA_ptr getPOA() const override { return PortableServer::POA::_nil(); }

  private:
    const std::string m_name = "name";
    Orb* const m_orb;
};

TEST(PeerLinkTest, IsOneAProcess)
{
    EXPECT_EQ(&getPeerLink(), &getPeerLink());
}

TEST(PeerLinkTest, ReportsAMissingServiceAndReachesNobody)
{
    const PeerLink link;
    EXPECT_FALSE(link.hasService());
    const AssertionCapture assertions;
    EXPECT_EQ(link.service(), nullptr);
    EXPECT_EQ(link.ownServiceName(), TlxString());
    const LogCapture log;
    const Remote::DiscoveryService_var service =
        link.connect(TlxHostname("peer"), DISCOVERY_SERVICE);
    EXPECT_TRUE(CORBA::is_nil(service));
    EXPECT_EQ(assertions.texts(), Lines(3, "0 != m_discoveryFramework"));
    EXPECT_EQ(log.texts(1), Lines{"Failed to connect to remote discovery service"});
}

TEST(PeerLinkTest, HoldsTheServiceUntilItIsGivenAnother)
{
    PeerLink link;
    const AutoDereference<Hosted> service(new Hosted(nullptr));
    link.setService(service.get());
    EXPECT_EQ(link.service(), service.get());
    EXPECT_EQ(service->referenceCount(), 2u);
    link.setService(nullptr);
    EXPECT_FALSE(link.hasService());
    EXPECT_EQ(service->referenceCount(), 1u);
}

TEST(PeerLinkTest, KnowsTheMasterFromTheConfiguration)
{
    HostConfig::instance().readText("SERVER = master1\n", "qm.conf");
    const PeerLink link;
    TlxHostname name;
    link.getMasterServerName(name);
    EXPECT_EQ(name.text(), TlxString("master1"));
}

TEST(PeerLinkTest, AGivenMasterGoesBeforeTheConfiguration)
{
    HostConfig::instance().readText("SERVER = master1\n", "qm.conf");
    PeerLink link;
    EXPECT_FALSE(link.isMasterGiven());
    link.setMaster({"backup1", {"127.0.0.1", 99}, {"alias1"}});
    EXPECT_TRUE(link.isMasterGiven());
    TlxHostname name;
    link.getMasterServerName(name);
    EXPECT_EQ(name.text(), TlxString("backup1"));
}

TEST(MasterAddressTest, ItsNamesHaveNoCase)
{
    const MasterAddress master{"backup1", {"127.0.0.1", 99}, {"alias1", "alias2"}};
    for (const char* name : {"backup1", "BACKUP1", "Alias2"})
        EXPECT_TRUE(master.isMeantBy(name)) << name;
    for (const char* name : {"", "backup", "backup11"})
        EXPECT_FALSE(master.isMeantBy(name)) << name;
}

TEST(PeerLinkTest, AnnouncesTheShutdownOfItsOwnServiceOnly)
{
    PeerLink link;
    EXPECT_FALSE(link.isShuttingDown());
    link.announceShutdown();
    EXPECT_TRUE(link.isShuttingDown());
    EXPECT_FALSE(getPeerLink().isShuttingDown());
}

TEST(PeerLinkTest, QueriesAndWritesHaveBoundsOfTheirOwn)
{
    PeerLink link;
    std::vector<std::unique_ptr<InFlight>> queries;
    for (unsigned i = 0; i < PeerLink::MAX_FORWARDED_QUERIES; ++i) {
        queries.push_back(std::make_unique<InFlight>(link.forwardedQueries()));
        EXPECT_TRUE(queries.back()->isAdmitted());
    }
    EXPECT_FALSE(InFlight(link.forwardedQueries()).isAdmitted());
    std::vector<std::unique_ptr<InFlight>> writes;
    for (unsigned i = 0; i < PeerLink::MAX_WRITES_BEING_OPENED; ++i) {
        writes.push_back(std::make_unique<InFlight>(link.writesBeingOpened()));
        EXPECT_TRUE(writes.back()->isAdmitted());
    }
    EXPECT_FALSE(InFlight(link.writesBeingOpened()).isAdmitted());
}

/// A peer, and this process's ORB.
struct ServiceConnectionTest : testing::Test
{
    static ServiceAddress at(const std::string& host)
    {
        ServiceAddress address;
        address.host.setHostname(TlxString(host));
        return address;
    }
    static ServiceAddress at(const std::string& host, const std::string& endpoint)
    {
        ServiceAddress address = at(host);
        address.endpoint = parseEndpoint(endpoint);
        EXPECT_TRUE(address.endpoint) << endpoint;
        return address;
    }

    FakePeer peer; // forked before anything else
    FakePeer stranger{FakePeer::STRANGER};
    Orb orb{false, "127.0.0.1:0", "MyService", false};
};

TEST_F(ServiceConnectionTest, ReachesAServiceWhereTheConfigurationSays)
{
    HostConfig::instance().readText("ENDPOINT.peer = " + peer.endpoint + "\n", "qm.conf");
    const auto service = connectToService(&orb, at("peer"));
    ASSERT_TRUE(service);
    EXPECT_NO_THROW(service->in()->restartLocalPushTimer());
}

TEST_F(ServiceConnectionTest, ReachesAServiceWhereTheCallerSays)
{
    HostConfig::instance().readText("ENDPOINT.peer = 127.0.0.1:1\n", "qm.conf");
    EXPECT_TRUE(connectToService(&orb, at("peer", peer.endpoint)));
}

TEST_F(ServiceConnectionTest, SaysWhyThereIsNoService)
{
    HostConfig::instance().readText("", "qm.conf");
    const LogCapture log;
    const auto noOrb = connectToService(nullptr, at("peer"));
    ASSERT_FALSE(noOrb);
    EXPECT_EQ(noOrb.error().kind, ConnectFailure::NO_ORB);

    const auto gone = connectToService(&orb, at("gone", "127.0.0.1:1"));
    ASSERT_FALSE(gone);
    EXPECT_EQ(gone.error().kind, ConnectFailure::NOT_FOUND);
    EXPECT_EQ(gone.error().cause.substr(0, 9), "TRANSIENT");
    EXPECT_EQ(gone.error().exception, "TRANSIENT");

    const auto strange = connectToService(&orb, at("stranger", stranger.endpoint));
    ASSERT_FALSE(strange);
    EXPECT_EQ(strange.error().kind, ConnectFailure::NO_SERVICE);
    EXPECT_EQ(strange.error().cause, "what answers there is no discovery service");
    EXPECT_EQ(strange.error().exception, "");
    EXPECT_EQ(log.texts(1), Lines{});

    const auto self = connectToService(&orb, at("self", orb.getEndpoint()));
    ASSERT_FALSE(self);
    EXPECT_EQ(self.error().kind, ConnectFailure::NOT_FOUND);
    EXPECT_EQ(self.error().cause, "it leads back to this service");
    EXPECT_EQ(log.texts(1), Lines{"self leads back to this service: " + orb.getEndpoint()});
}

TEST_F(ServiceConnectionTest, ASilentPeerCostsTheLimit)
{
    peer.freeze();
    ServiceAddress address = at("peer", peer.endpoint);
    address.limit = 300ms;
    const auto before = std::chrono::steady_clock::now();
    const auto service = connectToService(&orb, address);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 4s);
    ASSERT_FALSE(service);
    EXPECT_EQ(service.error().kind, ConnectFailure::NOT_FOUND);
    EXPECT_NE(service.error().cause, "");
}

TEST_F(ServiceConnectionTest, TheLinkConnectsWithTheOrbOfItsService)
{
    HostConfig::instance().readText("ENDPOINT.peer = " + peer.endpoint + "\n", "qm.conf");
    PeerLink link;
    link.setService(AutoDereference<Hosted>(new Hosted(&orb)).get());
    EXPECT_EQ(link.ownServiceName(), TlxString("MyService"));
    const Remote::DiscoveryService_var service =
        link.connect(TlxHostname("peer"), DISCOVERY_SERVICE);
    EXPECT_FALSE(CORBA::is_nil(service));
}

TEST_F(ServiceConnectionTest, TheLinkReachesAGivenMasterByAllItsNames)
{
    HostConfig::instance().readText("ENDPOINT.peer = 127.0.0.1:1\n", "qm.conf");
    PeerLink link;
    link.setService(AutoDereference<Hosted>(new Hosted(&orb)).get());
    const auto endpoint = parseEndpoint(peer.endpoint);
    ASSERT_TRUE(endpoint);
    link.setMaster({"master1", *endpoint, {"peer"}});
    for (const char* name : {"master1", "peer"}) {
        const Remote::DiscoveryService_var service =
            link.connect(TlxHostname(name), DISCOVERY_SERVICE);
        EXPECT_FALSE(CORBA::is_nil(service)) << name;
    }
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
