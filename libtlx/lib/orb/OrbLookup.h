#pragma once
// Calls to other hosts with a limit on their time.

#include <chrono>
#include <string>

#include <tl/expected.hpp>
#include <tlx/Corba.h>
#include <tlx/Hostname.h>

namespace Veltrane::Quillmark::Tlx {

class OrbCore;

struct AdvertisedObject;
struct LookupFailure;

/// As Orb::lookupObject.
[[nodiscard]] tl::expected<CORBA::Object_var, LookupFailure>
lookupObject(const OrbCore& core, const AdvertisedObject& wanted);

/// As Orb::setOrbRequestTimeout.
void setProcessCallLimit(std::chrono::seconds limit);

} // namespace Veltrane::Quillmark::Tlx
