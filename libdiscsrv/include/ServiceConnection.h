#pragma once
// Connects to another host's discovery service.

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

/// The address of a service, and the limit for reaching it.
struct ServiceAddress
{
    TlxHostname host;
    std::string serviceName = DISCOVERY_SERVICE;
    /// Where it listens. Without a value the configuration decides.
    std::optional<Endpoint> endpoint;
    /// The limit for finding the object, and again for asking for its type.
    std::chrono::milliseconds limit = std::chrono::seconds(5);
    /// If true, an address that leads back to this process is a failure, which is logged.
    bool elsewhere = true;
};

/// Why there is no connection.
struct ConnectFailure
{
    enum Kind
    {
        NO_ORB,      ///< this process has no ORB
        NOT_FOUND,   ///< no address has the object
        NO_SERVICE,  ///< the object is not a discovery service
        CALL_FAILED, ///< a call threw
    };
    Kind kind = NOT_FOUND;
    std::string cause;     ///< one line for people
    std::string exception; ///< the name of the CORBA exception; empty without one
};

/// The master's address, for a process that does not take it from the configuration.
struct MasterAddress
{
    std::string host; ///< its name; case does not matter
    Endpoint endpoint;
    /// Other names under which records refer to the same service.
    std::vector<std::string> aliases;

    /// True if the name is the master's or one of its aliases.
    bool isMeantBy(const std::string& name) const;
};

/// Returns the service, or why it cannot be reached. Logs nothing at level 1, except an address
/// that leads back to this process. Any thread may call it; it does not throw.
[[nodiscard]] DISCSRV_EXPORT tl::expected<Remote::DiscoveryService_var, ConnectFailure>
connectToService(Orb* orb, const ServiceAddress& address);

/// Returns nil on failure and logs it. The caller releases the reference.
Remote::DiscoveryService_ptr connectToRemoteDS(Orb* orb, const ServiceAddress& address);

/// The same for the address in the configuration. It takes at most five seconds to find the object,
/// and at most five more to check its type.
Remote::DiscoveryService_ptr connectToRemoteDS(const TlxHostname& host, Orb* orb,
                                               const char* serviceName);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
