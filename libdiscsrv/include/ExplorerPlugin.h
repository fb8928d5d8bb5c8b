#pragma once
// The header of a library of explorers, with the functions that the library exports.
// docs/plugins.md explains them.

#include "DiscoveryRepository.h"

extern "C" {
// A library defines the functions that it needs. The function registers its objects with the
// repository (registerExplorer, registerExplorerParser), which takes references of its own. If a
// function throws, the exception is logged with the library's path, and the caller goes on. A
// library that is both the default library and a plug-in is called twice.

// The daemon calls it once, at the start.
[[gnu::visibility("default")]] void
RegisterExplorers(Veltrane::Quillmark::Tlx::DiscoverySvc::DiscoveryRepository* repository);
// The daemon and other readers of items call it once, when they first need a parser.
[[gnu::visibility("default")]] void
RegisterExplorerParsers(Veltrane::Quillmark::Tlx::DiscoverySvc::DiscoveryRepository* repository);
// The daemon never calls it. A program that loads filter data calls it (ExplorerLoader.h).
[[gnu::visibility("default")]] void RegisterExplorerFilterDataProvider(
    Veltrane::Quillmark::Tlx::DiscoverySvc::DiscoveryRepository* repository);
}
