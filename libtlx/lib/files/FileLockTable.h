#pragma once
// The table behind FileLock.
//
// The table has an entry for every file that this process opened through it. The key is device and
// inode. The file system does not use an inode for another file while a descriptor of it is open.
// A File has the state of one file. The table's mutex guards it.
//
// No thread holds that mutex during a kernel call that can wait. Instead one thread at a time has
// the *transition* of the file. It releases the mutex, calls the kernel and records the result:
//
//  - A Short transition (F_SETLK, close) ends at once. So every other thread waits for its end. A
//    try lock does so too, because it would make such a call itself.
//  - A Waiting transition (F_SETLKW) lasts until other processes release their locks. Other threads
//    wait for it only if they must. They get a lock that the process already has. A try lock that
//    needs more fails as busy. A release or a close is only recorded, because a kernel call could
//    release the lock that the waiting thread has just got. The end of the transition settles it.
//
// `kernel` is the level that the process certainly has. The table lowers it before a kernel call
// that lowers the lock, and raises it after a call that raised the lock. So a holder never gets a
// level that the process does not have.
//
// Invariant while no transition is in progress and the mutex is free: kernel == needed(). If that
// is LockLevel::None, no descriptor is parked.

#include <condition_variable>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>

#include <tlx/FileLock.h>

namespace Veltrane::Quillmark::Tlx::FileLockDetail {

using Guard = std::unique_lock<std::mutex>;

/// It does not own the descriptor. Closing a descriptor drops the locks of its file, so only the
/// table closes it (File::settle).
struct Descriptor
{
    int fd;
    bool readable;
    bool writable;
};

/// Asks the kernel how a descriptor was opened.
Descriptor describe(int fd);

enum class Transition
{
    None,
    Short,
    Waiting
};

struct Table
{
    using Key = std::pair<dev_t, ino_t>;

    Table(pid_t process, Table* previous) : pid(process), older(previous) {}

    /// Returns the entry of an open file; makes a missing one. The caller holds the mutex. It must
    /// release the mutex before it destroys its copy of the pointer.
    std::shared_ptr<File> fileOf(const struct stat& status);

    const pid_t pid;
    /// The parent's table. Threads that exist only in the parent may hold its mutexes. So this
    /// process keeps it and never uses it.
    Table* const older;
    std::mutex mutex;
    std::map<Key, std::weak_ptr<File>> files;
    /// Entries of the parent's table whose holders were destroyed here. Never used, as above.
    std::vector<std::shared_ptr<File>> inherited;
};

/// The table of this process. The first call in a forked child makes a new one.
Table& currentTable();

struct File
{
    File(Table& itsTable, const Table::Key& itsKey) : table(itsTable), key(itsKey) {}
    /// Removes its entry from the table. The caller must not hold the table's mutex.
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    /// The highest level of the holders.
    LockLevel needed() const;
    /// The highest level of the holders, without one holder of the level `held`.
    LockLevel neededByOthers(LockLevel held) const;
    void moveHolder(LockLevel from, LockLevel to);
    bool allows(int fd, LockLevel level) const;
    void park(int fd);

    // The caller of these functions holds the mutex. They release it during kernel calls.

    int tryRaise(Guard& guard, int fd, LockLevel held, LockLevel wanted);
    /// It may release the held lock during the wait. If it then cannot get that lock back, it sets
    /// `held` to None.
    int waitRaise(Guard& guard, int fd, LockLevel& held, LockLevel wanted);
    void awaitShort(Guard& guard);
    /// Lowers the kernel's level to the needed one. If that is LockLevel::None, it closes the
    /// parked descriptors.
    void settle(Guard& guard);

    Table& table;
    const Table::Key key;
    std::recursive_mutex gate;

    std::list<Descriptor> open;
    std::list<Descriptor> parked;
    unsigned readers = 0;
    unsigned writers = 0;
    unsigned waiters = 0;
    LockLevel kernel = LockLevel::None;
    Transition transition = Transition::None;
    std::condition_variable changed;

  private:
    int descriptorFor(LockLevel level) const;
    int raise(Guard& guard, int fd, LockLevel wanted);
    int waitInKernel(Guard& guard, int fd, LockLevel& held, LockLevel wanted);
};

} // namespace Veltrane::Quillmark::Tlx::FileLockDetail
