#pragma once
// Opening a record's metadata file so that what is read or written through it is the record.

#include <memory>
#include <optional>

#include <tlx/FileLock.h>
#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// A metadata file, open and locked, with the gate that keeps this process's other threads off its
/// content. Hand the lock on and let this object go to open the gate and keep the lock.
class RecordFile
{
  public:
    enum Outcome
    {
        READY,
        CANNOT_OPEN,
        CANNOT_LOCK
    };

    /// Waits for other processes' locks. On failure errno has the reason.
    /// @param flags as open(2) takes them.
    Outcome open(const TlxPathname& path, int flags, LockLevel level);

    int handle() const { return m_file->lock->get_handle(); }
    std::unique_ptr<FileLock> takeLock() { return std::move(m_file->lock); }

  private:
    std::optional<LockedFile> m_file;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
