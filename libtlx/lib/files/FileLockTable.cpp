#include "FileLockTable.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <unistd.h>

#include <tlx/Assert.h>
#include <tlx/Log.h>

namespace Veltrane::Quillmark::Tlx::FileLockDetail {

namespace {

/// How long to repeat a request that the kernel refuses as a deadlock. The kernel sees only whole
/// processes. One of our threads may hold a lock while another one waits for a lock. To the kernel
/// this looks like a single waiting thread, but the first thread will release its lock.
constexpr std::chrono::seconds DEADLOCK_PATIENCE{2};
constexpr std::chrono::milliseconds DEADLOCK_PAUSE{10};

/// One kernel call. Returns 0 or the error.
int setKernelLock(int fd, LockLevel level, int command)
{
    struct flock request = {};
    request.l_type = static_cast<short>(level == LockLevel::Write  ? F_WRLCK
                                        : level == LockLevel::Read ? F_RDLCK
                                                                   : F_UNLCK);
    request.l_whence = SEEK_SET;
    request.l_start = 0;
    request.l_len = 1;
    int answer = 0;
    do {
        answer = ::fcntl(fd, command, &request);
    } while (answer < 0 && errno == EINTR);
    return answer < 0 ? errno : 0;
}

bool isConflict(int error)
{
    return error == EAGAIN || error == EACCES;
}

} // namespace

Descriptor describe(int fd)
{
    const int mode = ::fcntl(fd, F_GETFL) & O_ACCMODE;
    return {fd, mode == O_RDONLY || mode == O_RDWR, mode == O_WRONLY || mode == O_RDWR};
}

Table& currentTable()
{
    static std::atomic<Table*> current{nullptr};
    Table* table = current.load(std::memory_order_acquire);
    const pid_t pid = ::getpid();
    if (table != nullptr && table->pid == pid)
        return *table;
    auto fresh = std::make_unique<Table>(pid, table);
    if (current.compare_exchange_strong(table, fresh.get(), std::memory_order_acq_rel))
        return *fresh.release(); // never destroyed, because static objects may hold locks
    return *table;
}

std::shared_ptr<File> Table::fileOf(const struct stat& status)
{
    const Key key{status.st_dev, status.st_ino};
    std::weak_ptr<File>& entry = files[key];
    std::shared_ptr<File> file = entry.lock();
    if (!file) {
        file = std::make_shared<File>(*this, key);
        entry = file;
    }
    return file;
}

File::~File()
{
    Guard guard(table.mutex);
    const auto entry = table.files.find(key);
    // Another thread may have opened the file again meanwhile. Then the entry is not ours.
    if (entry != table.files.end() && entry->second.expired())
        table.files.erase(entry);
}

LockLevel File::needed() const
{
    return writers > 0 ? LockLevel::Write : readers > 0 ? LockLevel::Read : LockLevel::None;
}

LockLevel File::neededByOthers(LockLevel held) const
{
    if (writers > 0)
        return LockLevel::Write;
    return readers > (held == LockLevel::Read ? 1u : 0u) ? LockLevel::Read : LockLevel::None;
}

void File::moveHolder(LockLevel from, LockLevel to)
{
    const auto add = [this](LockLevel level, int difference) {
        if (level == LockLevel::Read)
            readers += static_cast<unsigned>(difference);
        else if (level == LockLevel::Write)
            writers += static_cast<unsigned>(difference);
    };
    add(from, -1);
    add(to, +1);
}

bool File::allows(int fd, LockLevel level) const
{
    for (const Descriptor& descriptor : open)
        if (descriptor.fd == fd)
            return level == LockLevel::Write  ? descriptor.writable
                   : level == LockLevel::Read ? descriptor.readable
                                              : true;
    return false;
}

void File::park(int fd)
{
    for (auto it = open.begin(); it != open.end(); ++it)
        if (it->fd == fd) {
            parked.splice(parked.end(), open, it); // no allocation: this runs in destructors
            return;
        }
    TLX_SHOULD_NOT_GET_HERE();
}

/// A descriptor for lowering the lock to the level. Read needs a readable one, and every reader has
/// one. None accepts any descriptor.
int File::descriptorFor(LockLevel level) const
{
    for (const auto* descriptors : {&open, &parked})
        for (const Descriptor& descriptor : *descriptors)
            if (level == LockLevel::None || descriptor.readable)
                return descriptor.fd;
    return -1;
}

void File::awaitShort(Guard& guard)
{
    changed.wait(guard, [this] { return transition != Transition::Short; });
}

void File::settle(Guard& guard)
{
    while (transition == Transition::None) {
        const LockLevel target = needed();
        const bool lowers = kernel > target;
        std::list<Descriptor> closing;
        if (target == LockLevel::None)
            closing.swap(parked);
        if (!lowers && closing.empty())
            break;
        const int fd = descriptorFor(target);
        kernel = target;
        transition = Transition::Short;
        guard.unlock();
        // Closing a descriptor also drops the lock, so then the unlocking call is not necessary.
        const int error = lowers && closing.empty() ? setKernelLock(fd, target, F_SETLK) : 0;
        for (const Descriptor& descriptor : closing)
            ::close(descriptor.fd);
        if (error != 0)
            TLX_LOG(LoggerFactory::instance().getLogger(LOG_ORIGINATOR_PLATFORM), LOG_LEVEL_FAILURE,
                    "FileLock::release", "../FileLock",
                    "Cannot lower the lock on a file: " << std::strerror(error));
        guard.lock();
        transition = Transition::None;
    }
    changed.notify_all();
}

int File::raise(Guard& guard, int fd, LockLevel wanted)
{
    transition = Transition::Short;
    guard.unlock();
    const int error = setKernelLock(fd, wanted, F_SETLK);
    guard.lock();
    if (error == 0)
        kernel = wanted;
    transition = Transition::None;
    changed.notify_all();
    return error;
}

int File::tryRaise(Guard& guard, int fd, LockLevel held, LockLevel wanted)
{
    awaitShort(guard);
    if (writers > 0)
        return EBUSY;
    if (wanted == LockLevel::Write && (neededByOthers(held) != LockLevel::None || waiters > 0))
        return EBUSY;
    if (kernel < wanted) {
        if (transition != Transition::None)
            return EBUSY;
        if (const int error = raise(guard, fd, wanted); error != 0)
            return isConflict(error) ? EBUSY : error;
    }
    moveHolder(held, wanted);
    return 0;
}

int File::waitRaise(Guard& guard, int fd, LockLevel& held, LockLevel wanted)
{
    ++waiters;
    changed.wait(guard, [this, wanted] {
        return transition == Transition::None ||
               (transition == Transition::Waiting && kernel >= wanted);
    });
    int error = 0;
    if (kernel < wanted) {
        error = raise(guard, fd, wanted);
        if (isConflict(error))
            error = waitInKernel(guard, fd, held, wanted);
    }
    if (error == 0) {
        moveHolder(held, wanted);
        held = wanted;
    }
    --waiters;
    settle(guard);
    return error;
}

int File::waitInKernel(Guard& guard, int fd, LockLevel& held, LockLevel wanted)
{
    transition = Transition::Waiting;
    std::optional<std::chrono::steady_clock::time_point> giveUp;
    int error = 0;
    for (;;) {
        // If two processes wait for Write and both keep Read, they wait for ever. So keep only the
        // level that the other holders need. Check it each time, because they may have released.
        const LockLevel kept = neededByOthers(held);
        const bool lowers = kernel > kept;
        kernel = std::min(kernel, kept);
        guard.unlock();
        if (lowers)
            (void)setKernelLock(fd, kept, F_SETLK);
        error = setKernelLock(fd, wanted, F_SETLKW);
        guard.lock();
        if (error != EDEADLK)
            break;
        const auto now = std::chrono::steady_clock::now();
        if (!giveUp)
            giveUp = now + DEADLOCK_PATIENCE;
        else if (now >= *giveUp)
            break;
        changed.wait_for(guard, DEADLOCK_PAUSE);
    }
    if (error == 0) {
        kernel = wanted;
    } else if (kernel < held) {
        guard.unlock();
        const bool regained = setKernelLock(fd, held, F_SETLK) == 0;
        guard.lock();
        if (regained) {
            kernel = held;
        } else {
            moveHolder(held, LockLevel::None);
            held = LockLevel::None;
        }
    }
    transition = Transition::None;
    return error;
}

} // namespace Veltrane::Quillmark::Tlx::FileLockDetail
