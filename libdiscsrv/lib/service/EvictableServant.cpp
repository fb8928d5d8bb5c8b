#include "EvictableServant.h"

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

namespace {
constexpr const char* LOG_SOURCE = "DiscoveryService_i";
} // namespace

void add2Evictor(const PortableServer::ObjectId& id, PortableServer::POA* poa, Orb& orb,
                 long timeoutSeconds)
{
    DISC_TRACE("add2Evictor");
    const TlxObjTime timeout(timeoutSeconds, 0);
    const PortableServer::ObjectId noParent;
    try {
        orb.getEvictor().addObject(timeout, poa, id, noParent);
    } catch (const CORBA::Exception& e) {
        DISC_WARN("Caught CORBA exception while add2Evictor, " << describeException(e));
        throw;
    }
}

void removeFromEvictor(PortableServer::ObjectId_var& id, Orb& orb)
{
    DISC_TRACE("removeFromEvictor");
    if (!id.operator->()) {
        DISC_WARN("Nothing to be evicted, Object ID is not valid");
        return;
    }
    orb.getEvictor().removeObject(id.in(), true, true);
}

void deactivateQuietly(PortableServer::POA_ptr poa, const PortableServer::ObjectId& id)
{
    try {
        poa->deactivate_object(id);
    } catch (const CORBA::Exception&) {
    }
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
