#pragma once
// A service over the wire.

#include <memory>
#include <string>

#include <tlx/Orb.h>

#include "Phase.h"
#include "Target.h"

namespace Veltrane::Quillmark::Soak {

/// @param endpointFile a file with the service's current "ADDRESS:PORT". The driver replaces it
/// when the service is up again.
/// @param limit for the answer to each call.
/// The ORB and the phase must outlive the target.
std::unique_ptr<Target> makeWireTarget(Tlx::Orb& orb, const std::string& endpointFile,
                                       std::chrono::seconds limit, Phase& phase);

} // namespace Veltrane::Quillmark::Soak
