#pragma once
// The service that a command talks to, and where it listens.

#include <string>

#include <tlx/HostConfig.h>

#include "StatusDocument.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

struct Target
{
    std::string host;       ///< the name that the person gave
    Tlx::Endpoint endpoint; ///< where its service listens; port 0 if unknown
    bool local = false; ///< whether it is the service that this host's status document describes
};

/// Returns the service that a command must use. Without a host it is the service that SERVER in the
/// configuration names, or else this host's service. While this host's service runs, the status
/// document has its endpoint. Otherwise the configuration has it. May resolve names, for at most 5
/// seconds.
Target findTarget(const std::string& hostArgument, const Tlx::HostConfig& config,
                  const StatusDocument& status);

} // namespace Veltrane::Quillmark::Qmdiscoctl
