#pragma once
// How much memory the service takes at most.

#include <cstdint>

#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The bytes that the process stays below, whatever its peers do, as the configuration bounds it.
/// Each record of the store takes BYTES_OF_A_NAME more, and plug-ins take their own. Any thread;
/// does not fail.
DISCSRV_EXPORT std::uint64_t memoryCeiling();

/// The names of the directory, twice: those of the last walk, and those of the walk that runs.
inline constexpr std::uint64_t BYTES_OF_A_NAME = 256;

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
