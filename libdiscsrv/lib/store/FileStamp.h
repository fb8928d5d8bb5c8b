#pragma once
// Recognises a file that has not changed since it was read.

#include <cstdint>

#include <sys/stat.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Identifies one state of a file. Every change of the file's content gives it another stamp, if
/// the stamp has settled.
struct FileStamp
{
    explicit FileStamp(const struct stat& status);

    /// False for a file that was changed a moment ago. The clock of a file system moves in steps,
    /// so a second change in the same step would leave the same times.
    bool isSettled(const struct timespec& now) const;
    bool isSettledNow() const;

    friend bool operator==(const FileStamp&, const FileStamp&) = default;

    dev_t device;
    ino_t inode;
    off_t size;
    std::int64_t modifiedSeconds;
    std::int64_t changedSeconds;
    std::int32_t modifiedNanoseconds;
    std::int32_t changedNanoseconds;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
