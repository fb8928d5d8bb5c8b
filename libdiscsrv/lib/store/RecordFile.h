#pragma once
// Opening a record's metadata file so that what is read or written through it is the record.
//
// Between opening a path and locking the file another process, or another thread of this one, may
// have removed the file or put a new one in its place. So the file is opened, locked and gated, and
// then compared with what stands at the path; when they differ, all begins anew.

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

    /// Waits for other processes' locks.
    /// @param flags as open(2) takes them.
    Outcome open(const TlxPathname& path, int flags, LockLevel level);

    int handle() const { return m_lock->get_handle(); }
    std::unique_ptr<FileLock> takeLock() { return std::move(m_lock); }

  private:
    std::unique_ptr<FileLock> m_lock;
    std::optional<FileGate> m_gate; // goes before the lock
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
