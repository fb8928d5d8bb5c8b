// The repository's way to other hosts.

#include <tlx/HostConfig.h>
#include <tlx/Orb.h>
#include <tlx/Servant.h>

#include "DiscLog.h"
#include "DiscoveryRepository.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscoveryRepository";
constexpr std::chrono::seconds LOOKUP_LIMIT{5};
} // namespace

Remote::DiscoveryService_ptr connectToRemoteDS(const TlxHostname& host, Orb* orb,
                                               const char* serviceName)
{
    DISC_TRACE("connectToRemoteDS");
    DISC_LOG(4, "Host: " << host.text());
    DISC_LOG(4, "Service: " << serviceName);
    try {
        const CORBA::Object_var object =
            orb ? orb->lookupObject(host, serviceName, LOOKUP_LIMIT) : CORBA::Object::_nil();
        if (CORBA::is_nil(object)) {
            DISC_LOG(1, "Failed to connect to remote discovery service");
            return Remote::DiscoveryService::_nil();
        }
        Remote::DiscoveryService_var service = Remote::DiscoveryService::_narrow(object);
        if (CORBA::is_nil(service))
            DISC_LOG(1, "Failed to connect to remote discovery service ( narrow failed ) ");
        return service._retn();
    } catch (const CORBA::Exception& e) {
        DISC_LOG(1, "Failed to connect to remote discovery service.");
        DISC_LOG(1, describeException(e));
        return Remote::DiscoveryService::_nil();
    }
}

Remote::DiscoveryService_ptr
DiscoveryRepository::connectToRemoteDiscoveryService(const TlxHostname& host,
                                                     const char* serviceName) const
{
    DISC_TRACE("DiscoveryRepository::connectToRemoteDiscoveryService");
    return connectToRemoteDS(host, getOrb(), serviceName);
}

DiscoveryIterator* DiscoveryRepository::queryRemoteDiscoveries(DiscoveryQuery, const std::string&,
                                                               const std::string&, AuthorityType)
{
    DISC_TRACE("DiscoveryRepository::queryRemoteDiscoveries");
    TlxHostname master;
    getMasterServerName(master);
    if (master.empty())
        DISC_LOG(1, "Cannot find master server name, abort connecting to master discovery service");
    else
        DISC_LOG(1, "Queries of a host that is not the master cannot be forwarded yet");
    return nullptr;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
