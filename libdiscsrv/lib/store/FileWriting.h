#pragma once
// The system calls behind a write that lasts.

#include <cstddef>

#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Writes all the bytes at the descriptor's position; false with errno set.
bool writeAll(int fd, const void* bytes, std::size_t length);

/// Sets room on the disk aside for a file's first bytes without changing it, so that overwriting
/// them does not run out of space half-way. False with errno set; a file system that cannot do it
/// answers true.
bool reserveSpace(int fd, std::size_t length);

/// Makes the names in a directory survive a power cut; false with errno set.
bool syncDirectory(const TlxPathname& directory);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
