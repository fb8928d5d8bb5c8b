#pragma once
// Locks on files, between processes and between parts of this process.
//
// The kernel's record locks belong to a process and a file. A second descriptor in the same process
// gets the same lock at once. Closing any descriptor of the file drops all locks of the process on
// it. A daemon that serves many requests at a time would lose its locks that way. So all code uses
// only this header to open, lock and close such files. Each process has one table of files, with
// device and inode as the key. The table follows these rules:
//
//  1. Every FileLock is a *holder* with its own level. The kernel's lock has the highest level of
//     all holders in this process. The table calls the kernel only when that level changes.
//  2. If a holder closes while another holder has a lock on the file, the table parks the holder's
//     descriptor. It closes the descriptor with the last lock.
//  3. The end of a holder does not change the locks of other holders.
//  4. A *waiting* lock waits only for other processes. If the process already has enough, the
//     caller gets the lock at once. So no thread waits here for its own lock.
//  5. A *try* lock fails if another holder of this process has a conflicting lock.
//  6. No thread holds the table's mutex during a call that can wait.
//  7. A forked child owns no lock. It can only close its inherited FileLocks.
//
// A FileGate keeps two short operations on one file apart, between threads of this process.
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

/// One holder: an open descriptor and its lock. One thread at a time uses a holder. Different
/// threads may use different holders of one file at the same time.
class FileLock
{
  public:
    /// Opens the file through the table, with flags and permissions as for open(2). Adds
    /// O_CLOEXEC. On failure it returns null and sets errno: EISDIR for a directory, EINVAL for
    /// another file that is not regular. It does not wait for the writer of a pipe.
    static std::unique_ptr<FileLock> open(const std::string& path, int flags, mode_t mode = 0);

    /// Releases the lock, and closes the descriptor or parks it.
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    /// The descriptor, for reading and writing. It is valid as long as this object exists. The
    /// caller must not close it. -1 in a forked child.
    int get_handle() const;

    // Each of these returns 0 on success. On failure it returns -1, sets errno, and does not change
    // the level. A request for the current level succeeds. A request for Read lowers Write. EBADF
    // means that the descriptor is not open for reading (Read) or for writing (Write). ENOLCK means
    // that this is a forked child.

    /// Waits until no other process holds a conflicting lock. EDEADLK: two processes wait for each
    /// other, and still do after a short while. acquire_write from Read may release Read while it
    /// waits. So the caller must check again what it read before. If acquire_write then fails, and
    /// another process got the lock in between, level() returns LockLevel::None.
    int acquire_read();
    int acquire_write();
    /// Fail at once with EBUSY if another process, or another holder of this process, has a
    /// conflicting lock.
    int tryacquire_read();
    int tryacquire_write();
    /// Raises Read to Write and does not wait. On failure the holder keeps Read. From None it does
    /// the same as tryacquire_write.
    int tryacquire_write_upgrade();
    /// Releases the lock. The descriptor stays open.
    int release();

    LockLevel level() const;

    /// Whether path still names this file. Another process may remove or replace the file between
    /// the opening and the locking.
    bool isStillAt(const std::string& path) const;

    /// How many descriptors of this process are open and how many are parked. For tests.
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

/// Only one thread of this process has the gate of a file. Take it to read or write the content of
/// a locked file, for one such operation only. Do not keep it as long as a caller keeps a record,
/// and do not wait for a lock inside it. A thread may nest gates of one file.
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

/// A file that is open and locked, with its gate taken, and still at its path. To let other threads
/// of this process use the content, destroy the gate and keep the lock.
struct LockedFile
{
    std::unique_ptr<FileLock> lock;
    FileGate gate; ///< destroyed before the lock
};

/// Why openLocked failed.
struct LockFailure
{
    enum Step
    {
        OPENING,
        LOCKING,
        REPLACED ///< after each locking, the path named another file or no file
    };
    Step step;
    std::error_code error;
    /// The open file if LOCKING failed. With it the caller can ask the kernel who holds the lock.
    std::unique_ptr<FileLock> file = nullptr;
};

/// Whether openLocked waits until no other process holds a conflicting lock, or fails with EBUSY.
enum class LockWait
{
    WAIT,
    TRY
};

/// openLocked gives up after this many attempts, if somebody removes or replaces the file each time
/// between the opening and the locking.
constexpr int LOCK_MAX_ATTEMPTS = 100;

/// Opens a file, locks it, and takes its gate. Then it checks that the path still names this file,
/// because somebody may have removed or replaced it before it was locked. If not, it tries again.
/// @param flags, mode as for FileLock::open.
[[nodiscard]] tl::expected<LockedFile, LockFailure>
openLocked(const TlxPathname& path, int flags, mode_t mode, LockLevel level, LockWait wait);

} // namespace Veltrane::Quillmark::Tlx
