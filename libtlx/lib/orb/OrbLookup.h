#pragma once
// Calls to other hosts with a limit on their time.

#include <chrono>
#include <string>

#include <tlx/Corba.h>
#include <tlx/Hostname.h>

namespace Veltrane::Quillmark::Tlx {

class OrbCore;

/// As Orb::lookupObject, or as Orb::lookupObjectElsewhere.
CORBA::Object_ptr lookupObject(const OrbCore& core, const TlxHostname& host,
                               const std::string& name, std::chrono::milliseconds limit,
                               bool elsewhere);

/// As Orb::setOrbRequestTimeout.
void setProcessCallLimit(std::chrono::seconds limit);

} // namespace Veltrane::Quillmark::Tlx
