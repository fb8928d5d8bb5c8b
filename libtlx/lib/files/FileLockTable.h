#pragma once
// The table behind FileLock: an entry for every file that this process has open through it.
//
// The key of an entry is device and inode. The file system does not use an inode for another file
// while a descriptor of it is open, and the entry keeps one open.
//
// No kernel call on a lock waits (F_OFD_SETLK), so each runs under the file's mutex. A holder that
// must wait for another process tries again after a pause. It does not use F_OFD_SETLKW: while one
// thread waited there, a release by another thread could drop the lock that the first one had just
// got. And such a wait has no limit.
//
// Without more, the threads of one process could share its lock without a gap, and another process
// would wait in vain. So a process that waits has a read lock on the second byte of the file. A
// process that sees it gives way: its newcomers pause for a moment, until the holders have
// released. The moment has a bound, because a newcomer's own thread may be such a holder.
//
// Invariant while the file's mutex is free: `kernel` is the level that the process has in the
// kernel, and it is the highest level of the holders.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>

#include <tlx/FileLock.h>

namespace Veltrane::Quillmark::Tlx::FileLockDetail {

using Guard = std::unique_lock<std::mutex>;

struct Table
{
    using Key = std::pair<dev_t, ino_t>;

    /// Returns the entry of a file; makes a missing one, which keeps the descriptor.
    /// @param forksBefore the value of `forks` before the descriptor was opened. If a thread has
    ///     forked since then, the child has the descriptor too, and would keep its lock alive. So
    ///     it cannot become an entry's: the function returns null, and the caller opens the file
    ///     again.
    std::shared_ptr<File> fileOf(const struct stat& status, FileDescriptor& descriptor,
                                 unsigned long forksBefore);
    void remove(const File& file);
    FileLock::Counts counts();

    // A fork happens while the table's mutex is held, so that the child finds the table whole.
    void beforeFork() { mutex.lock(); }
    void afterForkInParent();
    /// Closes the parent's descriptors and starts with an empty table.
    void afterForkInChild();

    std::mutex mutex;
    std::map<Key, std::weak_ptr<File>> files;
    /// The parent's entries. Threads that exist only in the parent may have their mutexes, so this
    /// process neither uses nor destroys them.
    std::vector<std::shared_ptr<File>> inherited;
    /// How often this process has forked.
    std::atomic<unsigned long> forks{0};
    std::atomic<std::chrono::milliseconds> waitLimit{FileLock::DEFAULT_WAIT_LIMIT};
    std::atomic<std::size_t> waiting{0};
    std::atomic<unsigned long long> waitsGivenUp{0};
};

/// The table of this process.
Table& table();

/// A lock that a thread can take several times, and wait for until a given time.
class Turn
{
  public:
    using Time = std::chrono::steady_clock::time_point;

    void take();
    bool takeUntil(Time until);
    void giveBack();

  private:
    bool isFree() const { return m_depth == 0 || m_owner == std::this_thread::get_id(); }
    void takeFree();

    std::mutex m_mutex;
    std::condition_variable m_free;
    std::thread::id m_owner;
    unsigned m_depth = 0;
};

struct File
{
    File(const Table::Key& itsKey, FileDescriptor itsDescriptor)
        : key(itsKey), descriptor(std::move(itsDescriptor))
    {
    }
    /// Removes its entry from the table.
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // The caller of these functions holds the mutex. They return 0 or an errno.

    int tryRaise(LockLevel held, LockLevel wanted);
    /// Releases the mutex during pauses. Sets `held` to the level that the holder has afterwards.
    int waitRaise(Guard& guard, LockLevel& held, LockLevel wanted);
    int lower(LockLevel held, LockLevel wanted);

    const Table::Key key;
    FileDescriptor descriptor; ///< it has the process's lock
    /// True in a forked child.
    std::atomic<bool> isInherited{false};
    std::atomic<std::size_t> holders{0};
    std::recursive_mutex gate;
    Turn turn;

    std::mutex mutex;
    /// The process's level has risen, which may be enough for a waiting holder.
    std::condition_variable raised;

  private:
    LockLevel needed() const;
    void moveHolder(LockLevel from, LockLevel to);
    int callKernel(int command, struct flock& request, off_t byte) const;
    int setKernel(LockLevel level);
    /// Lowers the kernel's level to the needed one.
    int settle();
    /// Adds to the number of waiting holders, and shows other processes whether there are any.
    void countWaiter(int change);
    bool doOthersWait() const;
    /// Pauses while other processes wait, within the bounds. Releases the mutex during pauses.
    void giveWay(Guard& guard);

    using Time = std::chrono::steady_clock::time_point;

    unsigned m_readers = 0;
    unsigned m_writers = 0;
    int m_waiters = 0;
    bool m_isSeenWaiting = false;
    LockLevel m_kernel = LockLevel::None;
    Time m_wayEnds; ///< until then, newcomers pause if other processes wait
    Time m_nextWay; ///< not before then may newcomers pause anew
};

} // namespace Veltrane::Quillmark::Tlx::FileLockDetail
