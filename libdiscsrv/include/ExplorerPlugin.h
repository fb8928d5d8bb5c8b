#pragma once
// What a library of explorers includes, and exports. docs/plugins.md tells the rest.

#include "DiscoveryRepository.h"

extern "C" {
// A library defines those it has something for. Each is called once, at the start or when its
// objects are first needed, and registers them with the repository (registerExplorer,
// registerExplorerParser), which takes references of its own. What one throws is logged with the
// library's path and goes no further.
[[gnu::visibility("default")]] void
RegisterExplorers(Veltrane::Quillmark::Tlx::DiscoverySvc::DiscoveryRepository* repository);
[[gnu::visibility("default")]] void
RegisterExplorerParsers(Veltrane::Quillmark::Tlx::DiscoverySvc::DiscoveryRepository* repository);
[[gnu::visibility("default")]] void RegisterExplorerFilterDataProvider(
    Veltrane::Quillmark::Tlx::DiscoverySvc::DiscoveryRepository* repository);
}
