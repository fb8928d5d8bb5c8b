#pragma once
// Calls to other hosts that take no longer than they may.

#include <chrono>
#include <string>

#include <tlx/Corba.h>
#include <tlx/Hostname.h>

namespace Veltrane::Quillmark::Tlx {

/// As Orb::lookupObject.
CORBA::Object_ptr lookupObject(CORBA::ORB_ptr orb, const TlxHostname& host, const std::string& name,
                               std::chrono::milliseconds limit);

/// As Orb::setOrbRequestTimeout.
void setProcessCallLimit(std::chrono::seconds limit);

} // namespace Veltrane::Quillmark::Tlx
