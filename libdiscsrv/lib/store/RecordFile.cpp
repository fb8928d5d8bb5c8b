#include "RecordFile.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

tl::expected<LockedFile, LockFailure> openRecordFile(const TlxPathname& path, int flags,
                                                     LockLevel level)
{
    // Compat(permissions-none): stores hold files with permissions 0. Only their owner, which has
    // the privilege to ignore permissions, can open them.
    constexpr mode_t PERMISSIONS = 0;
    return openLocked(path, flags, PERMISSIONS, level, LockWait::WAIT);
}

const char* messageOf(const LockFailure& failure)
{
    return failure.step == LockFailure::OPENING ? "Unable to open " : "Unable to lock ";
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
