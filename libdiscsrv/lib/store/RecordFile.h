#pragma once
// Opens the metadata file of a record.

#include <string>

#include <sys/stat.h>

#include <tl/expected.hpp>

#include <tlx/FileLock.h>
#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Opens and locks a metadata file. The caller owns the lock and the gate, which keeps this
/// process's other threads off the content. To keep only the lock, move it out of the result.
/// @param flags as open(2) takes them.
[[nodiscard]] tl::expected<LockedFile, LockFailure>
openRecordFile(const TlxPathname& path, int flags, LockLevel level, LockWait wait = LockWait::WAIT);

/// Logs a failure of openRecordFile: what failed, and the cause.
void logFailure(const LockFailure& failure, const TlxPathname& path);
/// The cause of a failure, for the log.
std::string causeOf(const LockFailure& failure);

/// Whether a put may have just made the file, and not written it yet: it is empty and young.
bool mayBeNew(const struct stat& status);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
