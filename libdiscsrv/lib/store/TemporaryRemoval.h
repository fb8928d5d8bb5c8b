#pragma once
// Removing the temporary payloads of writers that were given up.

#include <chrono>
#include <cstddef>

#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// In a stop, all removals together take about so long. Then the next start removes what is left.
/// Removing gigabytes takes seconds, and a stop must be quick.
constexpr std::chrono::milliseconds STOP_REMOVES_FOR{1000};
/// A stop leaves each larger payload to the next start, because a removal cannot be broken off.
constexpr std::size_t STOP_REMOVES_BYTES = std::size_t{256} << 20;

/// Removes a temporary payload of so many bytes. Logs the outcome. After announceStop, the bounds
/// above may leave it. Any thread.
void removeTemporary(const TlxPathname& path, std::size_t bytes);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
