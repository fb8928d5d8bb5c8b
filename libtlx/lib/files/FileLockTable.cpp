#include "FileLockTable.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <pthread.h>

#include <tlx/FileSystem.h>
#include <tlx/StopNotice.h>

namespace Veltrane::Quillmark::Tlx::FileLockDetail {

namespace {

/// The pauses of a waiting lock double from SHORTEST_PAUSE to LONGEST_PAUSE.
constexpr std::chrono::microseconds SHORTEST_PAUSE{200};
constexpr std::chrono::microseconds LONGEST_PAUSE{20000};

/// How often a waiting thread looks whether the process stops.
constexpr std::chrono::milliseconds LOOK_FOR_STOP{100};

/// A process gives way for LONGEST_WAY at most, and not again within TIME_BETWEEN_WAYS.
constexpr std::chrono::milliseconds LONGEST_WAY{100};
constexpr std::chrono::milliseconds TIME_BETWEEN_WAYS{500};
constexpr std::chrono::milliseconds WAY_PAUSE{1};

/// The bytes of the file that locks cover.
constexpr off_t LOCKED_BYTE = 0;
constexpr off_t WAITING_BYTE = 1;

short typeOf(LockLevel level)
{
    return static_cast<short>(level == LockLevel::Write  ? F_WRLCK
                              : level == LockLevel::Read ? F_RDLCK
                                                         : F_UNLCK);
}

bool isConflict(int error)
{
    return error == EAGAIN || error == EACCES;
}

} // namespace

Table& table()
{
    static Table* const theTable = [] {
        auto* const made = new Table; // never destroyed, because static objects may hold locks
        ::pthread_atfork([] { table().beforeFork(); }, [] { table().afterForkInParent(); },
                         [] { table().afterForkInChild(); });
        return made;
    }();
    return *theTable;
}

std::shared_ptr<File> Table::fileOf(const struct stat& status, FileDescriptor& descriptor,
                                    unsigned long forksBefore)
{
    const Key key{status.st_dev, status.st_ino};
    const Guard guard(mutex);
    const auto entry = files.find(key);
    std::shared_ptr<File> file = entry == files.end() ? nullptr : entry->second.lock();
    if (!file) {
        if (forks != forksBefore)
            return nullptr;
        std::weak_ptr<File>& made = files[key];
        file = std::make_shared<File>(key, std::move(descriptor));
        made = file;
    }
    file->holders.fetch_add(1, std::memory_order_relaxed);
    return file;
}

void Table::remove(const File& file)
{
    const Guard guard(mutex);
    const auto entry = files.find(file.key);
    // Another thread may have opened the file again meanwhile. Then the entry is not this file's.
    if (entry != files.end() && entry->second.expired())
        files.erase(entry);
}

FileLock::Counts Table::counts()
{
    FileLock::Counts counts;
    counts.waiting = waiting;
    counts.waitsGivenUp = waitsGivenUp;
    std::vector<std::shared_ptr<File>> kept; // no File is destroyed while this thread has the mutex
    const Guard guard(mutex);
    for (const auto& [key, entry] : files)
        if (std::shared_ptr<File> file = entry.lock()) {
            counts.holders += file->holders.load(std::memory_order_relaxed);
            ++counts.files;
            kept.push_back(std::move(file));
        }
    return counts;
}

void Table::afterForkInParent()
{
    ++forks;
    mutex.unlock();
}

void Table::afterForkInChild()
{
    for (const auto& [key, entry] : files)
        if (std::shared_ptr<File> file = entry.lock()) {
            file->isInherited = true;
            // The parent's lock stays: it goes with the parent's last descriptor.
            file->descriptor.reset();
            inherited.push_back(std::move(file));
        }
    files.clear();
    waiting = 0;
    mutex.unlock();
}

void Turn::take()
{
    Guard guard(m_mutex);
    m_free.wait(guard, [this] { return isFree(); });
    takeFree();
}

bool Turn::takeUntil(Time until)
{
    Guard guard(m_mutex);
    while (!isFree()) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= until || isStopAnnounced())
            return false;
        m_free.wait_until(guard, std::min<Time>(until, now + LOOK_FOR_STOP));
    }
    takeFree();
    return true;
}

void Turn::takeFree()
{
    m_owner = std::this_thread::get_id();
    ++m_depth;
}

void Turn::giveBack()
{
    {
        const Guard guard(m_mutex);
        if (--m_depth > 0)
            return;
        m_owner = {};
    }
    m_free.notify_one();
}

File::~File()
{
    table().remove(*this);
}

LockLevel File::needed() const
{
    return m_writers > 0 ? LockLevel::Write : m_readers > 0 ? LockLevel::Read : LockLevel::None;
}

void File::moveHolder(LockLevel from, LockLevel to)
{
    m_readers -= from == LockLevel::Read ? 1 : 0;
    m_writers -= from == LockLevel::Write ? 1 : 0;
    m_readers += to == LockLevel::Read ? 1 : 0;
    m_writers += to == LockLevel::Write ? 1 : 0;
}

int File::callKernel(int command, struct flock& request, off_t byte) const
{
    request.l_whence = SEEK_SET;
    request.l_start = byte;
    request.l_len = 1;
    int answer = 0;
    do {
        answer = FileSystem::current().lock(descriptor.get(), command, &request);
    } while (answer < 0 && errno == EINTR);
    return answer < 0 ? errno : 0;
}

int File::setKernel(LockLevel level)
{
    struct flock request = {};
    request.l_type = typeOf(level);
    if (const int error = callKernel(F_OFD_SETLK, request, LOCKED_BYTE); error != 0)
        return error;
    if (std::exchange(m_kernel, level) < level)
        raised.notify_all();
    return 0;
}

int File::settle()
{
    return m_kernel > needed() ? setKernel(needed()) : 0;
}

void File::countWaiter(int change)
{
    m_waiters += change;
    table().waiting += static_cast<std::size_t>(change);
    const bool waits = m_waiters > 0;
    if (waits == std::exchange(m_isSeenWaiting, waits))
        return;
    // If this fails, other processes do not give way. The wait has its limit.
    struct flock request = {};
    request.l_type = typeOf(waits ? LockLevel::Read : LockLevel::None);
    (void)callKernel(F_OFD_SETLK, request, WAITING_BYTE);
}

bool File::doOthersWait() const
{
    struct flock request = {};
    request.l_type = F_WRLCK;
    return callKernel(F_OFD_GETLK, request, WAITING_BYTE) == 0 && request.l_type != F_UNLCK;
}

void File::giveWay(Guard& guard)
{
    if (!doOthersWait())
        return;
    const auto start = std::chrono::steady_clock::now();
    if (start >= m_nextWay) {
        m_wayEnds = start + LONGEST_WAY;
        m_nextWay = start + TIME_BETWEEN_WAYS;
    }
    for (auto now = start; now < m_wayEnds && doOthersWait();
         now = std::chrono::steady_clock::now())
        raised.wait_until(guard, now + WAY_PAUSE);
}

int File::lower(LockLevel held, LockLevel wanted)
{
    moveHolder(held, wanted);
    return settle();
}

int File::tryRaise(LockLevel held, LockLevel wanted)
{
    const unsigned otherReaders = m_readers - (held == LockLevel::Read ? 1 : 0);
    if (m_writers > 0)
        return EBUSY;
    if (wanted == LockLevel::Write && (otherReaders > 0 || m_waiters > 0))
        return EBUSY;
    if (m_kernel < wanted)
        if (const int error = setKernel(wanted); error != 0)
            return isConflict(error) ? EBUSY : error;
    moveHolder(held, wanted);
    return 0;
}

int File::waitRaise(Guard& guard, LockLevel& held, LockLevel wanted)
{
    if (held == LockLevel::None)
        giveWay(guard);
    if (m_kernel < wanted) {
        int error = setKernel(wanted);
        if (isConflict(error)) {
            const LockLevel before = held;
            const auto giveUp = std::chrono::steady_clock::now() + table().waitLimit.load();
            std::chrono::microseconds pause = SHORTEST_PAUSE;
            (void)lower(held, LockLevel::None); // rule 4 of tlx/FileLock.h
            held = LockLevel::None;
            countWaiter(1);
            while (isConflict(error)) {
                const auto now = std::chrono::steady_clock::now();
                if (now >= giveUp || isStopAnnounced()) {
                    error = ETIMEDOUT;
                    ++table().waitsGivenUp;
                    break;
                }
                raised.wait_until(guard, std::min(now + pause, giveUp));
                pause = std::min(2 * pause, LONGEST_PAUSE);
                error = m_kernel < wanted ? setKernel(wanted) : 0;
            }
            countWaiter(-1);
            if (error != 0 && (m_kernel >= before || setKernel(before) == 0)) {
                moveHolder(LockLevel::None, before);
                held = before;
            }
        }
        if (error != 0)
            return error;
    }
    moveHolder(held, wanted);
    held = wanted;
    return 0;
}

} // namespace Veltrane::Quillmark::Tlx::FileLockDetail
