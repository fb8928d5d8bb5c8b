// The repository's way to other hosts.

#include <tlx/Orb.h>
#include <tlx/Servant.h>

#include "DiscLog.h"
#include "DiscoveryRepository.h"
#include "InFlight.h"
#include "RemoteDB.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscoveryRepository";
constexpr std::chrono::seconds LOOKUP_LIMIT{5};
constexpr const char* SERVICE = "DiscoveryService";

/// Each of them occupies a request thread until the master has answered: hosts that name each other
/// as their master, or a master that hangs, must not take all there are.
constexpr unsigned MAX_FORWARDED_QUERIES = 32;
InFlightBound g_forwardedQueries(MAX_FORWARDED_QUERIES);

} // namespace

Remote::DiscoveryService_ptr connectToRemoteDS(const TlxHostname& host, Orb* orb,
                                               const char* serviceName)
{
    DISC_TRACE("connectToRemoteDS");
    DISC_LOG(4, "Host: " << host.text());
    DISC_LOG(4, "Service: " << serviceName);
    try {
        const CORBA::Object_var object =
            orb ? orb->lookupObjectElsewhere(host, serviceName, LOOKUP_LIMIT)
                : CORBA::Object::_nil();
        if (CORBA::is_nil(object)) {
            DISC_LOG(1, "Failed to connect to remote discovery service");
            return Remote::DiscoveryService::_nil();
        }
        const OrbCallLimit limited(LOOKUP_LIMIT); // the object is asked what it is
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

DiscoveryIterator* DiscoveryRepository::queryRemoteDiscoveries(DiscoveryQuery query,
                                                               const std::string& subject,
                                                               const std::string& authority,
                                                               AuthorityType type)
{
    DISC_TRACE("DiscoveryRepository::queryRemoteDiscoveries");
    TlxHostname master;
    getMasterServerName(master);
    if (master.empty()) {
        DISC_LOG(1, "Cannot find master server name, abort connecting to master discovery service");
        return nullptr;
    }
    const InFlight inFlight(g_forwardedQueries);
    if (!inFlight.isAdmitted()) {
        DISC_LOG(1, MAX_FORWARDED_QUERIES << " queries are being forwarded already");
        return nullptr;
    }
    const Remote::DiscoveryService_var service = connectToRemoteDiscoveryService(master, SERVICE);
    if (CORBA::is_nil(service)) {
        DISC_LOG(1, "Failed to connect to discovery service");
        return nullptr;
    }
    std::string failure;
    try {
        Remote::DiscoveryIterator_var found =
            service->queryDiscoveries(query, type, authority.c_str(), subject.c_str());
        AutoDereference<RemoteDiscoveryIterator> iterator(
            new RemoteDiscoveryIterator(type, subject, authority, found._retn()));
        if (iterator->getFailure().empty())
            return iterator.release();
        failure = iterator->getFailure();
    } catch (const CORBA::Exception& e) {
        failure = describeException(e);
    }
    DISC_LOG(1, "Failed to query remote discoveries: " << failure);
    return nullptr;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
