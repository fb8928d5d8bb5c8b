#include "ServiceConnection.h"

#include <tlx/Orb.h>
#include <tlx/Servant.h>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscoveryRepository";
} // namespace

tl::expected<Remote::DiscoveryService_var, ConnectFailure>
connectToService(Orb* orb, const ServiceAddress& address)
{
    using Failure = tl::unexpected<ConnectFailure>;
    if (!orb)
        return Failure({ConnectFailure::NO_ORB, "this process has no ORB"});
    try {
        std::string cause;
        const CORBA::Object_var object = orb->lookupObject(
            {address.host, address.serviceName, address.endpoint, address.limit, address.elsewhere},
            cause);
        if (CORBA::is_nil(object))
            return Failure({ConnectFailure::NOT_FOUND, cause});
        const OrbCallLimit limited(address.limit); // the object is asked what it is
        Remote::DiscoveryService_var service = Remote::DiscoveryService::_narrow(object);
        if (CORBA::is_nil(service))
            return Failure(
                {ConnectFailure::NO_SERVICE, "what answers there is no discovery service"});
        return service;
    } catch (const CORBA::Exception& e) {
        return Failure({ConnectFailure::CALL_FAILED, describeException(e)});
    }
}

Remote::DiscoveryService_ptr connectToRemoteDS(const TlxHostname& host, Orb* orb,
                                               const char* serviceName)
{
    DISC_TRACE("connectToRemoteDS");
    DISC_LOG(4, "Host: " << host.text());
    DISC_LOG(4, "Service: " << serviceName);
    ServiceAddress address;
    address.host = host;
    address.serviceName = serviceName;
    auto service = connectToService(orb, address);
    if (service)
        return service->_retn();
    switch (service.error().kind) {
    case ConnectFailure::NO_ORB:
    case ConnectFailure::NOT_FOUND:
        DISC_LOG(1, "Failed to connect to remote discovery service");
        break;
    case ConnectFailure::NO_SERVICE:
        DISC_LOG(1, "Failed to connect to remote discovery service ( narrow failed ) ");
        break;
    case ConnectFailure::CALL_FAILED:
        DISC_LOG(1, "Failed to connect to remote discovery service.");
        DISC_LOG(1, service.error().cause);
        break;
    }
    return Remote::DiscoveryService::_nil();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
