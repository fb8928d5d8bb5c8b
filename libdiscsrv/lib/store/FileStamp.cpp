#include "FileStamp.h"

#include <algorithm>
#include <ctime>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

FileStamp::FileStamp(const struct stat& status)
    : device(status.st_dev), inode(status.st_ino), size(status.st_size),
      modifiedSeconds(status.st_mtim.tv_sec), changedSeconds(status.st_ctim.tv_sec),
      modifiedNanoseconds(static_cast<std::int32_t>(status.st_mtim.tv_nsec)),
      changedNanoseconds(static_cast<std::int32_t>(status.st_ctim.tv_nsec))
{
}

bool FileStamp::isSettled(const struct timespec& now) const
{
    // The kernel's clock for files moves every 1 to 10 ms. Some file systems keep whole seconds or
    // even seconds only; their times have no nanoseconds.
    constexpr std::int64_t FINE_GRAIN = 50'000'000;
    constexpr std::int64_t COARSE_GRAIN = 3'000'000'000;
    constexpr std::int64_t SECOND = 1'000'000'000;
    constexpr std::int64_t DAY = 86'400;
    const bool isCoarse = modifiedNanoseconds == 0 || changedNanoseconds == 0;
    const auto isOld = [&](std::int64_t seconds, std::int64_t nanoseconds) {
        // A file may have any time. The product below must not overflow.
        if (seconds > now.tv_sec || seconds < 0)
            return false;
        const std::int64_t age = std::min<std::int64_t>(now.tv_sec - seconds, DAY) * SECOND +
                                 (std::int64_t{now.tv_nsec} - nanoseconds);
        return age > (isCoarse ? COARSE_GRAIN : FINE_GRAIN);
    };
    return isOld(modifiedSeconds, modifiedNanoseconds) && isOld(changedSeconds, changedNanoseconds);
}

bool FileStamp::isSettledNow() const
{
    timespec now = {};
    return ::clock_gettime(CLOCK_REALTIME, &now) == 0 && isSettled(now);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
