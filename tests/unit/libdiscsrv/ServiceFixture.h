#pragma once
// A service in this process: a temporary root, this host as its master, an ORB on the loopback.

#include <filesystem>
#include <memory>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include <tlx/HostConfig.h>
#include <tlx/Orb.h>

#include "DiscDB.h"
#include "DiscoveryFramework.h"
#include "DiscoveryRepository.h"
#include "support/TemporaryDirectory.h"

namespace QmTest {

namespace Tlx = Veltrane::Quillmark::Tlx;
namespace Disc = Veltrane::Quillmark::Tlx::DiscoverySvc;

/// Records are created with permissions 0. These tests need the privilege to open them again.
inline bool mayOpenRecords()
{
    return ::geteuid() == 0;
}

/// The repository of this process, with a framework. Each process can have one.
class Service
{
  public:
    explicit Service(const std::string& configuration = "SERVER = localhost\n")
    {
        Tlx::HostConfig::instance().setRoot(root.path().string());
        Tlx::HostConfig::instance().readText(configuration + "CLIENT_NAME = here\n", "qm.conf");
        orb = std::make_unique<Tlx::Orb>(false, "127.0.0.1:0", "DiscoveryService", true);
        framework.reset(new Disc::DiscoveryFramework("", Disc::DST_GENERIC, orb.get(), false));
        framework->init();
        orb->serveRequests();
    }
    ~Service() { stop(); }
    void stop()
    {
        if (!framework)
            return;
        framework->shutdown();
        framework->fini();
        framework.reset();
    }
    std::filesystem::path store() const { return root.path() / "db" / "discovery"; }

    /// Stores a record through the repository.
    static Disc::DiscoveryResult put(const std::string& subject, const std::string& authority,
                                     const std::string& payload = "payload")
    {
        Tlx::AutoDereference<Disc::Discovery> discovery;
        Disc::getDiscoveryRepository()->newDiscovery(
            discovery, Disc::DQ_DISCOVERY_DATA, Disc::Subject(subject),
            Disc::Authority(authority, Disc::AT_QMKCLIENT),
            Disc::CollectionAttributes(Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY,
                                       Tlx::TlxObjTime::now(), Tlx::TlxObjTime(), 1));
        const Disc::DiscoveryResult opened = discovery->open(Disc::OM_UPDATE, "");
        if (!isSuccess(opened))
            return opened;
        EXPECT_TRUE(
            discovery->getCollectionData()->writeCollection(payload.size(), payload.data()));
        return discovery->persist();
    }

    TemporaryDirectory root;
    std::unique_ptr<Tlx::Orb> orb;
    Tlx::AutoDereference<Disc::DiscoveryFramework> framework;
};

} // namespace QmTest
