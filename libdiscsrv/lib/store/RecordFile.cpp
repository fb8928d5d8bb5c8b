#include "RecordFile.h"

#include <ctime>

#include <fcntl.h>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscDB";
} // namespace

tl::expected<LockedFile, LockFailure> openRecordFile(const TlxPathname& path, int flags,
                                                     LockLevel level, LockWait wait)
{
    // Compat(permissions-none): stores hold files with permissions 0. Only their owner, which has
    // the privilege to ignore permissions, can open them.
    constexpr mode_t PERMISSIONS = 0;
    // A put must not create what a link names.
    if ((flags & O_CREAT) != 0)
        flags |= O_NOFOLLOW;
    return openLocked(path, flags, PERMISSIONS, level, wait);
}

void logFailure(const LockFailure& failure, const TlxPathname& path)
{
    // A lock that is busy hurts one request. Any other failure needs an administrator.
    const LogSeverity severity =
        failure.step == LockFailure::TURN || failure.step == LockFailure::LOCKING
            ? LogSeverity::Warning
            : LogSeverity::Error;
    DISC_LOG_AS(LOG_LEVEL_FAILURE, severity,
                (failure.step == LockFailure::OPENING ? "Unable to open " : "Unable to lock ")
                    << path);
    DISC_LOG_AS(LOG_LEVEL_FAILURE, severity, "The cause: " << causeOf(failure));
}

bool mayBeNew(const struct stat& status)
{
    constexpr std::time_t YOUNG = 60; // seconds
    return status.st_size == 0 && std::time(nullptr) - status.st_mtim.tv_sec < YOUNG;
}

std::string causeOf(const LockFailure& failure)
{
    if (failure.step == LockFailure::REPLACED)
        return "the file was replaced after each of " + std::to_string(LOCK_MAX_ATTEMPTS) +
               " openings";
    if (failure.error == std::errc::timed_out)
        return (failure.step == LockFailure::TURN
                    ? "other puts of this process had their turn for all of "
                    : "other processes had a lock on it for all of ") +
               std::to_string(FileLock::waitLimit().count()) + " ms";
    if (failure.error == std::errc::device_or_resource_busy)
        return "another process or another writer has a lock on it";
    return describeError(failure.error);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
