#include "HostArgument.h"

#include <tlx/HostConfig.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

bool parseHost(const std::string& text, HostArgument& out)
{
    Tlx::Endpoint endpoint;
    if (Tlx::parseEndpoint(text, endpoint) && endpoint.port != 0) {
        out = {endpoint.address, endpoint.port};
        return true;
    }
    // Without a port. A bare IPv6 address gets the brackets that an endpoint needs.
    if (Tlx::parseEndpoint(text + ":1", endpoint) ||
        Tlx::parseEndpoint("[" + text + "]:1", endpoint)) {
        out = {endpoint.address, std::nullopt};
        return true;
    }
    return false;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
