#pragma once
// The record that a client reads by its exact name.

#include <DiscoverySvc.hh>

#include <tl/expected.hpp>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// Finds the record that a wire record names by subject, authority and kinds. Queries the store and
/// the pull explorers of a master, and the pull explorers of any other host. Any thread.
///
/// On failure it logs the reason and returns DS_NONE_FOUND if no record matches, or DS_LOGIC_ERROR
/// if several match.
[[nodiscard]] tl::expected<AutoDereference<Tlx::DiscoverySvc::Discovery>, DiscoveryStatus>
findOnlyRecord(const Remote::Discovery& wanted);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
