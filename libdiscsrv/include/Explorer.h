#pragma once
// The producers of discoveries.

#include <tlx/RefCounted.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The repository as explorers see it: something to hold on to, and to give back to the
/// repository's operations.
using DiscoveryFactory = TLXRefCounted;

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
