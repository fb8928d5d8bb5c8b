#include "HostArgument.h"

#include <tlx/Endpoint.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

std::optional<HostArgument> parseHost(const std::string& text)
{
    if (const auto endpoint = Tlx::parseEndpoint(text); endpoint && endpoint->port != 0)
        return HostArgument{endpoint->address, endpoint->port};
    // Without a port. A bare IPv6 address gets the brackets that an endpoint needs.
    for (const std::string& withPort : {text + ":1", "[" + text + "]:1"})
        if (const auto endpoint = Tlx::parseEndpoint(withPort))
            return HostArgument{endpoint->address, std::nullopt};
    return std::nullopt;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
