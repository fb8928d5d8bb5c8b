#pragma once
// Locks on files, between processes and between parts of this process.
//
// The locks belong to an open file description (F_OFD_SETLK). The process has one descriptor for
// each file that it locks, and all its FileLocks of that file share it. So no other opening or
// closing of the file can drop a lock. The table behind this header knows the files by device and
// inode. Its rules:
//
//  1. Every FileLock is a *holder* with its own level. The kernel's lock has the highest level of
//     all holders in this process.
//  2. The end of a holder does not change the locks of other holders. The descriptor is closed with
//     the last holder.
//  3. A *waiting* lock waits only for other processes. If the process already has enough, the
//     caller gets the lock, even if its own thread holds it. It gets the lock at once, unless
//     another process waits; then a short pause lets that process go first.
//  4. A holder that waits has no lock meanwhile. So two processes that both want to raise their
//     Read never wait for each other. A wait has a limit.
//  5. A *try* lock fails if another holder of this process has a conflicting lock.
//  6. A forked child owns no lock and no descriptor of its parent's FileLocks.
//
// A FileGate keeps two short operations on one file apart, between threads of this process. A
// WriterTurn does it for two replacements of one file, which may be long.
//
// The lock covers the first byte of the file. It conflicts with the record locks (F_SETLK) of other
// processes. A process that waits has a read lock on the second byte, which others can see.

#include <chrono>
#include <cstddef>
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

/// One holder of a file's lock. One thread at a time uses a holder. Different threads may use
/// different holders of one file at the same time.
class FileLock
{
  public:
    /// Opens the file through the table, with flags and permissions as for open(2). On failure it
    /// returns null and sets errno: EISDIR for a directory, EINVAL for another file that is not
    /// regular. It does not wait for the writer of a pipe.
    static std::unique_ptr<FileLock> open(const std::string& path, int flags, mode_t mode = 0);

    /// Releases the lock.
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    /// The descriptor, for reading and writing. It is valid as long as this object exists. The
    /// caller must not close it. All holders of the file in this process share it, and so its
    /// position: read and write at given positions (readFullAt), or take the gate. -1 in a forked
    /// child.
    int get_handle() const;

    // Each of these returns 0 on success. On failure it returns -1 and sets errno. The level stays
    // the same; acquire_write has one exception, below. A request for the current level succeeds. A
    // request for Read lowers Write. EBADF means that the file was not opened for reading (Read) or
    // for writing (Write). It also means that an earlier holder, which is still open, could only
    // open the file for reading. A forked child gets ENOLCK.

    /// Waits until no other process holds a conflicting lock, at most for the wait limit. ETIMEDOUT
    /// means that the limit has passed. acquire_write from Read may release Read while it waits. So
    /// the caller must check again what it read before. If acquire_write then fails, and another
    /// process got the lock in between, level() returns LockLevel::None.
    int acquire_read();
    int acquire_write();
    /// Fail at once with EBUSY if another process, or another holder of this process, has a
    /// conflicting lock.
    int tryacquire_read();
    int tryacquire_write();
    /// Raises Read to Write and does not wait. On failure the holder keeps Read. From None it does
    /// the same as tryacquire_write.
    int tryacquire_write_upgrade();
    /// Releases the lock. The file stays open.
    int release();

    LockLevel level() const;

    /// Whether path still names this file. Another process may remove or replace the file between
    /// the opening and the locking.
    bool isStillAt(const std::string& path) const;
    /// The same with a status of the file at the path.
    bool isSameFile(const struct stat& status) const;

    /// How long a waiting lock waits for other processes. Every later wait of this process uses the
    /// new limit. A wait also ends when the process stops (StopNotice.h).
    static void setWaitLimit(std::chrono::milliseconds limit);
    static std::chrono::milliseconds waitLimit();
    static constexpr std::chrono::seconds DEFAULT_WAIT_LIMIT{20};

    /// The state of this process's table.
    struct Counts
    {
        std::size_t holders = 0;
        std::size_t files = 0;               ///< each has one open descriptor
        std::size_t waiting = 0;             ///< holders that wait for another process
        unsigned long long waitsGivenUp = 0; ///< since the start
    };
    static Counts counts();

  private:
    friend class FileGate;
    friend class WriterTurn;
    FileLock(std::shared_ptr<FileLockDetail::File> file, int flags);
    int change(LockLevel wanted, bool wait);
    bool allows(LockLevel wanted) const;

    const std::shared_ptr<FileLockDetail::File> m_file;
    const int m_accessMode; ///< O_RDONLY, O_WRONLY or O_RDWR, as asked for
    LockLevel m_level = LockLevel::None;
};

/// Only one thread of this process has the gate of a file. Take it to read or write the content of
/// a locked file, for one such operation only. Do not keep it while a disk syncs or as long as a
/// caller keeps a record, and do not wait for a lock inside it. A thread may nest gates of one
/// file.
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

/// Only one thread of this process has the turn to replace a file. Take it for a whole replacement,
/// with its syncs. Readers do not wait for it. A thread takes it before the write lock and before
/// the gate of the file: so threads that queue for the turn hold no lock, and another process can
/// get it between two turns. While a thread has the turn, it waits for no other lock than that of
/// the file. A thread may nest turns of one file.
class WriterTurn
{
  public:
    /// Waits for the turn.
    explicit WriterTurn(const FileLock& lock);
    /// Waits at most until the given time. Returns null after it.
    static std::unique_ptr<WriterTurn> take(const FileLock& lock,
                                            std::chrono::steady_clock::time_point until);
    ~WriterTurn();
    WriterTurn(const WriterTurn&) = delete;
    WriterTurn& operator=(const WriterTurn&) = delete;

  private:
    explicit WriterTurn(std::shared_ptr<FileLockDetail::File> file);
    const std::shared_ptr<FileLockDetail::File> m_file; ///< null in a forked child
};

/// A file that is open and locked, with its gate taken, and still at its path. To let other threads
/// of this process use the content, destroy the gate and keep the lock.
struct LockedFile
{
    std::unique_ptr<FileLock> lock;
    std::unique_ptr<WriterTurn> turn; ///< null for LockLevel::Read
    FileGate gate;                    ///< destroyed before the turn and the lock
    struct stat status;               ///< of the file, when it was locked
};

/// Why openLocked failed.
struct LockFailure
{
    enum Step
    {
        OPENING, ///< or looking at the path after the locking
        TURN,    ///< another thread of this process kept its turn; only for Write
        LOCKING, ///< another process, or another holder of this process, kept its lock
        REPLACED ///< after each locking, the path named another file or no file
    };
    Step step;
    std::error_code error;
    /// The open file if TURN or LOCKING failed.
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

/// Opens a file, locks it, and takes its gate; for Write first its turn. Then it checks that the
/// path still names this file, because somebody may have removed or replaced it before it was
/// locked. If not, it tries again.
/// @param flags, mode as for FileLock::open.
[[nodiscard]] tl::expected<LockedFile, LockFailure>
openLocked(const TlxPathname& path, int flags, mode_t mode, LockLevel level, LockWait wait);

} // namespace Veltrane::Quillmark::Tlx
