#pragma once
// Locks on files, between processes and inside this one.
//
// The kernel's record locks belong to the process and the file: a second descriptor in the same
// process is granted the same lock at once, and closing any descriptor of the file drops them all.
// A daemon that serves many requests at a time would lose its locks that way. So every file that is
// ever locked is opened, locked and closed through this header and nowhere else. Behind it stands
// one table a process, keyed by device and inode, with these rules:
//
//  1. Every FileLock is a *holder* with a level of its own. The process holds in the kernel the
//     highest level of its holders; the kernel is asked only when that changes.
//  2. A holder that closes while others still hold a lock on the file leaves its descriptor behind,
//     parked; it is closed with the last lock.
//  3. A holder that goes leaves the others' locks as they are.
//  4. A *waiting* lock waits for other processes only. It is granted at once when the process holds
//     enough already, so no thread ever waits here for a lock that it holds itself elsewhere.
//  5. A *try* lock sees other holders of this process as busy.
//  6. The table's mutex is never held during a call that can wait.
//  7. A forked child owns nothing: its inherited FileLocks only close.
//
// Between threads of this process a FileGate keeps two short operations on one file apart.
//
// The lock covers the first byte of the file.

#include <memory>
#include <mutex>
#include <string>

#include <sys/types.h>

#include <tlx/File.h>

namespace Veltrane::Quillmark::Tlx {

namespace FileLockDetail {
struct File;
}

enum class LockLevel
{
    None,
    Read,
    Write
};

/// One holder: an open descriptor and its lock. Used by one thread at a time; different holders of
/// one file may be used by different threads at once.
class FileLock
{
  public:
    /// Opens the file through the table, with flags and permissions as open(2) takes them
    /// (O_CLOEXEC is added). Null with errno set when it cannot be opened; EISDIR for a directory,
    /// EINVAL for anything else that is no regular file (it does not wait for a pipe's writer).
    static std::unique_ptr<FileLock> open(const std::string& path, int flags, mode_t mode = 0);

    /// Releases the lock and closes the descriptor (or parks it).
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    /// The descriptor, good for reading and writing until this object goes; never to be closed by
    /// the caller. -1 in a forked child.
    int get_handle() const;

    // Each of these answers 0 on success and -1 with errno set on failure, and then leaves the
    // level as it was. Asking for the level already held succeeds; asking for Read while holding
    // Write lowers the level. EBADF when the descriptor is not open for reading (Read) or writing
    // (Write); ENOLCK in a forked child.

    /// Waits until no other process holds a conflicting lock. EDEADLK when the wait would not end
    /// (the kernel saw two processes wait for each other, and again after a short while).
    /// acquire_write from Read may give Read up while it waits: what was read before is to be
    /// checked again. When it then fails and another process has come between, level() is None.
    int acquire_read();
    int acquire_write();
    /// Fail at once with EBUSY when another process, or another holder of this one, is in the way.
    int tryacquire_read();
    int tryacquire_write();
    /// From Read to Write without waiting; on failure Read is still held. From None it is
    /// the same as tryacquire_write.
    int tryacquire_write_upgrade();
    /// Gives the lock up; the descriptor stays open.
    int release();

    LockLevel level() const;

    /// Whether path still names the file that is open here (it may have been removed or replaced
    /// between opening and locking it).
    bool isStillAt(const std::string& path) const;

    /// How many descriptors the table keeps open and parked in this process; for tests.
    struct Counts
    {
        std::size_t open;
        std::size_t parked;
    };
    static Counts counts();

  private:
    friend class FileGate;
    FileLock(std::shared_ptr<FileLockDetail::File> file, int fd, pid_t owner);
    int change(LockLevel wanted, bool wait);

    std::shared_ptr<FileLockDetail::File> m_file;
    int m_fd;
    pid_t m_owner;
    LockLevel m_level = LockLevel::None;
};

/// Keeps the threads of this process apart while one of them reads or writes a locked file's
/// content: taken for the length of one such operation, never while a caller keeps a record, and
/// never while waiting for a lock. A thread may nest gates of one file.
class FileGate
{
  public:
    explicit FileGate(const FileLock& lock);
    FileGate(FileGate&&) = default;
    FileGate& operator=(FileGate&&) = delete;

  private:
    std::shared_ptr<FileLockDetail::File> m_file;
    std::unique_lock<std::recursive_mutex> m_lock;
};

/// A file that is open, locked and gated, and still at its path. Destroy the gate and keep the lock
/// to let other threads of this process at the content.
struct LockedFile
{
    std::unique_ptr<FileLock> lock;
    FileGate gate; ///< goes before the lock
};

/// Why openLocked failed.
struct LockFailure
{
    enum Step
    {
        OPENING,
        LOCKING,
        REPLACED ///< each time the file was locked, another one stood at its path, or none
    };
    Step step;
    std::error_code error;
    /// The open file when LOCKING failed, so that the kernel can be asked who holds the lock.
    std::unique_ptr<FileLock> file = nullptr;
};

/// Whether openLocked waits until no other process holds a conflicting lock, or fails with EBUSY.
enum class LockWait
{
    WAIT,
    TRY
};

/// Somebody removed or replaced the file this many times in a row between its opening and its
/// locking: openLocked gives up.
constexpr int LOCK_MAX_ATTEMPTS = 100;

/// Opens a file, locks it, and takes its gate. Then compares it with what stands at the path: the
/// file may have been removed or replaced before it was locked. When they differ all begins anew.
/// @param flags, mode as FileLock::open takes them.
[[nodiscard]] tl::expected<LockedFile, LockFailure>
openLocked(const TlxPathname& path, int flags, mode_t mode, LockLevel level, LockWait wait);

} // namespace Veltrane::Quillmark::Tlx
