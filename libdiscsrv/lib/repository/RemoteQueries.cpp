#include "RemoteQueries.h"

#include <tlx/Servant.h>

#include "DiscLog.h"
#include "PeerLink.h"
#include "RemoteDB.h"
#include "ServiceConnection.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscoveryRepository";
} // namespace

DiscoveryIterator* forwardQuery(PeerLink& link, const TlxHostname& master, DiscoveryQuery query,
                                const std::string& subject, const std::string& authority,
                                AuthorityType type)
{
    if (master.empty()) {
        DISC_LOG(1, "Cannot find master server name, abort connecting to master discovery service");
        return nullptr;
    }
    const InFlight inFlight(link.forwardedQueries());
    if (!inFlight.isAdmitted()) {
        DISC_WARN(PeerLink::MAX_FORWARDED_QUERIES << " queries are being forwarded already");
        return nullptr;
    }
    const Remote::DiscoveryService_var service = link.connect(master, DISCOVERY_SERVICE);
    if (CORBA::is_nil(service)) {
        DISC_WARN("Failed to connect to discovery service");
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
    DISC_WARN("Failed to query remote discoveries: " << failure);
    return nullptr;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
