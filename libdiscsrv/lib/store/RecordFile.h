#pragma once
// Opens the metadata file of a record.

#include <tl/expected.hpp>

#include <tlx/FileLock.h>
#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Opens and locks a metadata file, and waits for the locks of other processes. The caller owns the
/// lock and the gate, which keeps this process's other threads off the content. To keep only the
/// lock, move it out of the result.
/// @param flags as open(2) takes them.
[[nodiscard]] tl::expected<LockedFile, LockFailure> openRecordFile(const TlxPathname& path,
                                                                   int flags, LockLevel level);

/// The message for the log about a failure of openRecordFile, to be followed by the path.
const char* messageOf(const LockFailure& failure);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
