#pragma once
// A store's directory, used by this process itself. Other processes use it at the same time.

#include <memory>

#include "Target.h"

namespace Veltrane::Quillmark::Soak {

/// The store of this process must be initialised.
std::unique_ptr<Target> makeStoreTarget();

} // namespace Veltrane::Quillmark::Soak
