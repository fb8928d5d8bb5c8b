#include "ServiceConnection.h"

#include <algorithm>

#include <tlx/Orb.h>
#include <tlx/Servant.h>
#include <tlx/String.h>

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
        return Failure({ConnectFailure::NO_ORB, "this process has no ORB", {}});
    try {
        const auto object = orb->lookupObject({address.host, address.serviceName, address.endpoint,
                                               address.limit, address.elsewhere});
        if (!object)
            return Failure(
                {ConnectFailure::NOT_FOUND, object.error().cause, object.error().exception});
        const OrbCallLimit limited(address.limit); // _narrow may call the object
        Remote::DiscoveryService_var service = Remote::DiscoveryService::_narrow(*object);
        if (CORBA::is_nil(service))
            return Failure(
                {ConnectFailure::NO_SERVICE, "what answers there is no discovery service", {}});
        return service;
    } catch (const CORBA::Exception& e) {
        return Failure({ConnectFailure::CALL_FAILED, describeException(e), e._name()});
    }
}

bool MasterAddress::isMeantBy(const std::string& name) const
{
    const auto same = [&name](const std::string& other) {
        return compareIgnoringCase(name, other) == 0;
    };
    return same(host) || std::any_of(aliases.begin(), aliases.end(), same);
}

Remote::DiscoveryService_ptr connectToRemoteDS(const TlxHostname& host, Orb* orb,
                                               const char* serviceName)
{
    ServiceAddress address;
    address.host = host;
    address.serviceName = serviceName;
    return connectToRemoteDS(orb, address);
}

Remote::DiscoveryService_ptr connectToRemoteDS(Orb* orb, const ServiceAddress& address)
{
    DISC_TRACE("connectToRemoteDS");
    DISC_LOG(4, "Host: " << address.host.text());
    DISC_LOG(4, "Service: " << address.serviceName);
    auto service = connectToService(orb, address);
    if (service)
        return service->_retn();
    // Compat(log-connect): log readers distinguish the three texts.
    switch (service.error().kind) {
    case ConnectFailure::NO_ORB:
    case ConnectFailure::NOT_FOUND:
        DISC_WARN("Failed to connect to remote discovery service");
        break;
    case ConnectFailure::NO_SERVICE:
        DISC_WARN("Failed to connect to remote discovery service ( narrow failed ) ");
        break;
    case ConnectFailure::CALL_FAILED:
        DISC_WARN("Failed to connect to remote discovery service.");
        DISC_WARN(service.error().cause);
        break;
    }
    return Remote::DiscoveryService::_nil();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
