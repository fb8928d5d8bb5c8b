#pragma once
// Finding the objects that other hosts advertise.

#include <tl/expected.hpp>
#include <tlx/Corba.h>

namespace Veltrane::Quillmark::Tlx {

class OrbCore;

struct AdvertisedObject;
struct LookupFailure;

/// As Orb::lookupObject.
[[nodiscard]] tl::expected<CORBA::Object_var, LookupFailure>
lookupObject(const OrbCore& core, const AdvertisedObject& wanted);

} // namespace Veltrane::Quillmark::Tlx
