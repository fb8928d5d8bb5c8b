#pragma once
// What the clients do over the wire: the service's operations, and the same calls to the echo.

#include <map>
#include <string>

#include <tlx/Orb.h>

#include "ClientLoop.h"

namespace Veltrane::Quillmark::Bench {

/// The operations "service.read", "service.list" and "service.put". Each command has the service's
/// "endpoint". The ORB must outlive them.
std::map<std::string, Preparation> serviceOperations(const Tlx::Orb& orb);

/// The operations "echo.read", "echo.list" and "echo.put": as many calls, with as many bytes.
/// Each command has the echo's "endpoint". The ORB must outlive them.
std::map<std::string, Preparation> echoOperations(const Tlx::Orb& orb);

} // namespace Veltrane::Quillmark::Bench
