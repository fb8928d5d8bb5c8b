#pragma once
// Which service is spoken to, and where it listens.

#include <cstdint>
#include <optional>
#include <string>

#include <tlx/HostConfig.h>

#include "StatusDocument.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// What --host says.
struct HostArgument
{
    std::string host; ///< an IPv6 address without its brackets
    std::optional<std::uint16_t> port;
};

/// HOST, HOST:PORT, [IPV6]:PORT, [IPV6] or IPV6. False (and out unchanged) for anything else.
bool parseHost(const std::string& text, HostArgument& out);

struct Target
{
    std::string host;       ///< as a person names it
    Tlx::Endpoint endpoint; ///< where its service listens; port 0 when nobody knows
    bool local = false;     ///< whether the status document of this host tells of it
};

/// The service that is meant. Without a host it is the one that SERVER of the configuration names,
/// otherwise this host's. The one of this host is found where it says it listens, as long as it
/// runs, otherwise where the configuration says. May resolve names, for at most 5 seconds.
Target findTarget(const std::string& hostArgument, const Tlx::HostConfig& config,
                  const StatusDocument& status);

} // namespace Veltrane::Quillmark::Qmdiscoctl
