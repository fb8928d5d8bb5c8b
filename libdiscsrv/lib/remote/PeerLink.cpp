#include "PeerLink.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <tlx/HostConfig.h>
#include <tlx/Orb.h>

#include "DiscLog.h"
#include "ServiceConnection.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscoveryRepository";
} // namespace

PeerLink& getPeerLink()
{
    return *ACE_Singleton<PeerLink, ACE_Recursive_Thread_Mutex>::instance();
}

PeerLink::PeerLink() = default;
PeerLink::~PeerLink() = default;

const HostedService* PeerLink::service() const
{
    (void)TLX_ASSERT_AS(m_service, "0 != m_discoveryFramework");
    return m_service.get();
}

Orb* PeerLink::orb() const
{
    const HostedService* const hosted = service();
    return hosted ? hosted->getOrb() : nullptr;
}

TlxString PeerLink::ownServiceName() const
{
    const Orb* const own = orb();
    return own ? TlxString(own->getServiceName()) : TlxString();
}

void PeerLink::getMasterServerName(TlxHostname& out) const
{
    // Compat(log-master-name): log readers search for this name.
    DISC_TRACE("RemoteCollectionData::getMasterServerName");
    std::string name;
    if (m_master)
        name = m_master->host;
    else if (const auto server = HostConfig::instance().getString(ConfigKey::SERVER))
        name = *server;
    else
        DISC_LOG(1, "Unable to obtain master server name");
    out.setHostname(name);
}

Remote::DiscoveryService_ptr PeerLink::connect(const TlxHostname& host,
                                               const char* serviceName) const
{
    DISC_TRACE("DiscoveryRepository::connectToRemoteDiscoveryService");
    ServiceAddress address;
    address.host = host;
    address.serviceName = serviceName;
    if (m_master && m_master->isMeantBy(host.text().utf8()))
        address.endpoint = m_master->endpoint;
    return connectToRemoteDS(orb(), address);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
