#include "Target.h"

#include <tlx/String.h>

#include "HostArgument.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

/// The endpoint to connect to, for a service that listens on an endpoint.
Tlx::Endpoint reachable(Tlx::Endpoint endpoint)
{
    if (endpoint.address == "0.0.0.0")
        endpoint.address = "127.0.0.1";
    else if (endpoint.address == "::")
        endpoint.address = "::1";
    return endpoint;
}

Tlx::Endpoint localEndpoint(const Tlx::HostConfig& config, const std::string& host,
                            const StatusDocument& status)
{
    const auto current =
        status.isCurrent() ? Tlx::parseEndpoint(status.text("endpoint")) : std::nullopt;
    if (current && current->port != 0)
        return reachable(*current);
    const auto named = config.getEndpointOf(host);
    if (named && !config.getString(Tlx::ConfigKey::LISTEN))
        return *named;
    return reachable(config.listenEndpoint());
}

} // namespace

Target findTarget(const std::string& hostArgument, const Tlx::HostConfig& config,
                  const StatusDocument& status)
{
    Target target;
    const std::string own = config.localHostName();
    if (const auto given = parseHost(hostArgument)) {
        target.host = given->host;
        if (given->port) {
            target.endpoint = {given->host, *given->port};
            return target;
        }
        target.local = Tlx::isSameIgnoringCase(given->host, "localhost") ||
                       Tlx::isSameIgnoringCase(given->host, own);
    } else if (const auto server = config.getString(Tlx::ConfigKey::SERVER)) {
        target.host = *server;
        target.local = config.isMaster();
    } else {
        target.host = own;
        target.local = true;
    }
    target.endpoint =
        target.local ? localEndpoint(config, target.host, status) : config.endpointOf(target.host);
    return target;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
