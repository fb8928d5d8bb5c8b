#pragma once
// The service that a command talks to, and where it listens.

#include <string>

#include <tlx/HostConfig.h>

#include "StatusDocument.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

struct Target
{
    std::string host;       ///< as a person names it
    Tlx::Endpoint endpoint; ///< where its service listens; port 0 when that is not known
    bool local = false; ///< whether it is the service that this host's status document describes
};

/// The service that the arguments mean. Without a host it is the one that SERVER of the
/// configuration names, or else this host's. The status document says where this host's service
/// listens while it runs; otherwise the configuration does. May resolve names, for at most 5
/// seconds.
Target findTarget(const std::string& hostArgument, const Tlx::HostConfig& config,
                  const StatusDocument& status);

} // namespace Veltrane::Quillmark::Qmdiscoctl
