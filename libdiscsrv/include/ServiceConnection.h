#pragma once
// The one way to another host's discovery service.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <DiscoverySvc.hh>
#include <tl/expected.hpp>
#include <tlx/HostConfig.h>
#include <tlx/Hostname.h>

#include "DiscExport.h"
#include "ServiceName.h"

namespace Veltrane::Quillmark::Tlx {
class Orb;
}

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Where a service is, and how long it may take to reach it.
struct ServiceAddress
{
    TlxHostname host;
    std::string serviceName = DISCOVERY_SERVICE;
    /// Where it listens; without one, where the configuration says.
    std::optional<Endpoint> endpoint;
    /// How long the object may take to be found, and how long to say what it is.
    std::chrono::milliseconds limit = std::chrono::seconds(5);
    /// Whether an address that leads back to this process counts as a failure (it is logged).
    bool elsewhere = true;
};

/// Why there is no connection.
struct ConnectFailure
{
    enum Kind
    {
        NO_ORB,      ///< this process has no ORB to connect with
        NOT_FOUND,   ///< no address, or none that has such an object
        NO_SERVICE,  ///< the object is no discovery service
        CALL_FAILED, ///< a call threw
    };
    Kind kind = NOT_FOUND;
    std::string cause;     ///< one line for people
    std::string exception; ///< the name of the CORBA exception behind it; empty without one
};

/// The master, for a process that is told where it is and does not ask the configuration.
struct MasterAddress
{
    std::string host; ///< its name, without regard to case
    Endpoint endpoint;
    /// Other names under which records refer to the same service.
    std::vector<std::string> aliases;

    /// Whether a host's service is this one.
    bool isMeantBy(const std::string& name) const;
};

/// The service, or why it cannot be reached. Logs nothing at level 1, except an address that leads
/// back to this process. Any thread; does not throw.
[[nodiscard]] DISCSRV_EXPORT tl::expected<Remote::DiscoveryService_var, ConnectFailure>
connectToService(Orb* orb, const ServiceAddress& address);

/// The same, but nil on failure, which is logged; otherwise the caller releases it.
Remote::DiscoveryService_ptr connectToRemoteDS(Orb* orb, const ServiceAddress& address);

/// The same for a host's service where the configuration says, within five seconds each to find the
/// object and to ask what it is.
Remote::DiscoveryService_ptr connectToRemoteDS(const TlxHostname& host, Orb* orb,
                                               const char* serviceName);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
