#pragma once
// How the locks are kept.
//
// The table knows every file that this process has open through it, by device and inode; the inode
// cannot be used again for another file while a descriptor of it is open. What is known of a file
// lives in a File, guarded by the table's mutex. That mutex is never held during a kernel call that
// can wait; instead one thread at a time has the file's *transition*, lets go of the mutex, calls
// the kernel and records the outcome:
//
//  - a Short transition (F_SETLK, close) is over at once, so everybody waits for its end, the try
//    locks too: they would make such a call themselves;
//  - a Waiting one (F_SETLKW) lasts as long as other processes please. Nobody waits for it who does
//    not have to: a lock that the process already holds is granted, a try lock is busy, and who
//    releases or closes only records it, because a kernel call now could take away the lock that
//    the waiting thread is being given at that very moment. The transition's end settles it.
//
// `kernel` is what the process surely holds: it is lowered before a kernel call that lowers and
// raised after one that raised. So a lock granted because of it is never wrong.
//
// Invariant when no transition is in progress and the mutex is free: kernel == needed(), and
// nothing is parked when that is None.

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

/// Not an owner: closing a descriptor drops the locks of its file, so the table alone decides when
/// (File::settle).
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

    /// The entry of an open file, made when there is none; with the mutex held. The caller's copy
    /// must go after the mutex is free.
    std::shared_ptr<File> fileOf(const struct stat& status);

    const pid_t pid;
    /// The parent's table: its mutexes may have been held by threads that do not exist here, so it
    /// is kept and never touched.
    Table* const older;
    std::mutex mutex;
    std::map<Key, std::weak_ptr<File>> files;
    /// The parent's entries of holders that were destroyed here; not touched for the same reason.
    std::vector<std::shared_ptr<File>> inherited;
};

/// The table of this process. A forked child gets one of its own with its first use.
Table& currentTable();

struct File
{
    File(Table& itsTable, const Table::Key& itsKey) : table(itsTable), key(itsKey) {}
    /// Takes itself out of the table: never under its mutex.
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    /// The highest level of the holders.
    LockLevel needed() const;
    /// The same without one reader, when the asking holder is one.
    LockLevel neededByOthers(LockLevel held) const;
    void moveHolder(LockLevel from, LockLevel to);
    bool allows(int fd, LockLevel level) const;
    void park(int fd);

    // All of these are called with the mutex held and leave it for kernel calls.

    int tryRaise(Guard& guard, int fd, LockLevel held, LockLevel wanted);
    /// Lowers held to None when a lock that had to be given up during the wait could not be had
    /// back.
    int waitRaise(Guard& guard, int fd, LockLevel& held, LockLevel wanted);
    void awaitShort(Guard& guard);
    /// Brings the kernel's level down to what is needed and closes what was parked for its sake.
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
