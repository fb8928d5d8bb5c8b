#pragma once
// The header of a library of explorers, with the functions that the library exports.
// docs/plugins.md explains them.

#include "DiscoveryRepository.h"

extern "C" {
// A library defines the functions that it needs. The service calls each one once, at the start or
// when it first needs the objects. The function registers its objects with the repository
// (registerExplorer, registerExplorerParser), which takes references of its own. If a function
// throws, the service logs the exception with the library's path and goes on.
[[gnu::visibility("default")]] void
RegisterExplorers(Veltrane::Quillmark::Tlx::DiscoverySvc::DiscoveryRepository* repository);
[[gnu::visibility("default")]] void
RegisterExplorerParsers(Veltrane::Quillmark::Tlx::DiscoverySvc::DiscoveryRepository* repository);
[[gnu::visibility("default")]] void RegisterExplorerFilterDataProvider(
    Veltrane::Quillmark::Tlx::DiscoverySvc::DiscoveryRepository* repository);
}
