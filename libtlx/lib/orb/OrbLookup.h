#pragma once
// Calls to other hosts with a limit on their time.

#include <chrono>
#include <string>

#include <tlx/Corba.h>
#include <tlx/Hostname.h>

namespace Veltrane::Quillmark::Tlx {

class OrbCore;

struct AdvertisedObject;
struct LookupFailure;

/// As Orb::lookupObject.
CORBA::Object_ptr lookupObject(const OrbCore& core, const AdvertisedObject& wanted,
                               LookupFailure& failure);

/// As Orb::setOrbRequestTimeout.
void setProcessCallLimit(std::chrono::seconds limit);

} // namespace Veltrane::Quillmark::Tlx
