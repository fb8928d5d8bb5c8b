#include <tlx/FileLock.h>

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include "FileLockTable.h"
#include "PlatformLog.h"

namespace Veltrane::Quillmark::Tlx {

using FileLockDetail::File;
using FileLockDetail::Guard;
using FileLockDetail::table;

namespace {

constexpr const char* LOG_SOURCE = "../FileLock";

bool isForbidden(const std::error_code& error)
{
    switch (error.value()) {
    case EACCES:
    case EPERM:
    case EROFS:
    case ETXTBSY:
        return true;
    default:
        return false;
    }
}

/// Whether the path names no file.
bool isMissing(const std::error_code& error)
{
    return error.value() == ENOENT || error.value() == ENOTDIR;
}

/// Opens a file for reading and writing, because all later holders share the descriptor. If that is
/// forbidden, it opens the file as asked. After another failure (no free descriptor) it does not
/// try that: a second open could succeed, and then a later writer would get this descriptor.
FileResult<FileDescriptor> openForSharing(const TlxPathname& path, int flags, mode_t mode)
{
    // O_NONBLOCK: if somebody put a pipe in the file's place, the open does not wait for a writer.
    // The flag does nothing for a regular file.
    flags |= O_NONBLOCK | O_NOCTTY;
    auto file = openFile(path, (flags & ~O_ACCMODE) | O_RDWR, mode);
    if (file || (flags & O_ACCMODE) == O_RDWR || !isForbidden(file.error()))
        return file;
    return openFile(path, flags, mode);
}

} // namespace

FileLock::FileLock(std::shared_ptr<File> file, int flags)
    : m_file(std::move(file)), m_accessMode(flags & O_ACCMODE)
{
}

std::unique_ptr<FileLock> FileLock::open(const std::string& path, int flags, mode_t mode)
{
    if (path.find('\0') != std::string::npos) {
        errno = EINVAL;
        return nullptr;
    }
    for (;;) {
        const unsigned long forks = table().forks;
        auto descriptor = openForSharing(path, flags, mode);
        if (!descriptor) {
            errno = descriptor.error().value();
            return nullptr;
        }
        const auto status = statusOf(descriptor->get());
        if (!status || !S_ISREG(status->st_mode)) {
            descriptor->reset();
            errno = !status ? status.error().value() : S_ISDIR(status->st_mode) ? EISDIR : EINVAL;
            return nullptr;
        }
        if (auto file = table().fileOf(*status, *descriptor, forks))
            return std::unique_ptr<FileLock>(new FileLock(std::move(file), flags));
        flags &= ~O_EXCL; // this call has made the file
    }
}

FileLock::~FileLock()
{
    if (m_file->isInherited)
        return;
    (void)release();
    m_file->holders.fetch_sub(1, std::memory_order_relaxed);
}

int FileLock::get_handle() const
{
    return m_file->isInherited ? -1 : m_file->descriptor.get();
}

LockLevel FileLock::level() const
{
    return m_file->isInherited ? LockLevel::None : m_level;
}

bool FileLock::allows(LockLevel wanted) const
{
    return wanted == LockLevel::Write  ? m_accessMode != O_RDONLY
           : wanted == LockLevel::Read ? m_accessMode != O_WRONLY
                                       : true;
}

int FileLock::change(LockLevel wanted, bool wait)
{
    int error = 0;
    if (m_file->isInherited) {
        error = ENOLCK;
    } else if (wanted != m_level) {
        Guard guard(m_file->mutex);
        if (!allows(wanted)) {
            error = EBADF;
        } else if (wanted < m_level) {
            const int failed = m_file->lower(std::exchange(m_level, wanted), wanted);
            guard.unlock();
            if (failed != 0)
                PLATFORM_LOG(
                    LOG_LEVEL_FAILURE, "FileLock::release",
                    "Cannot lower the lock on a file: " << describeError(systemError(failed)));
        } else if (wait) {
            error = m_file->waitRaise(guard, m_level, wanted);
        } else {
            error = m_file->tryRaise(m_level, wanted);
            if (error == 0)
                m_level = wanted;
        }
    }
    if (error == 0)
        return 0;
    errno = error;
    return -1;
}

int FileLock::acquire_read()
{
    return change(LockLevel::Read, true);
}

int FileLock::acquire_write()
{
    return change(LockLevel::Write, true);
}

int FileLock::tryacquire_read()
{
    return change(LockLevel::Read, false);
}

int FileLock::tryacquire_write()
{
    return change(LockLevel::Write, false);
}

int FileLock::tryacquire_write_upgrade()
{
    return change(LockLevel::Write, false);
}

int FileLock::release()
{
    return change(LockLevel::None, false);
}

bool FileLock::isSameFile(const struct stat& status) const
{
    return !m_file->isInherited && m_file->key == std::pair(status.st_dev, status.st_ino);
}

bool FileLock::isStillAt(const std::string& path) const
{
    const auto status = statusAt(path);
    return status && isSameFile(*status);
}

void FileLock::setWaitLimit(std::chrono::milliseconds limit)
{
    table().waitLimit = limit;
}

std::chrono::milliseconds FileLock::waitLimit()
{
    return table().waitLimit;
}

FileLock::Counts FileLock::counts()
{
    return table().counts();
}

// In a forked child, the mutexes may be held by a thread that exists only in the parent.

FileGate::FileGate(const FileLock& lock)
{
    if (lock.m_file->isInherited)
        return;
    m_file = lock.m_file;
    m_lock = std::unique_lock(m_file->gate);
}

WriterTurn::WriterTurn(const FileLock& lock)
    : m_file(lock.m_file->isInherited ? nullptr : lock.m_file)
{
    if (m_file)
        m_file->turn.take();
}

WriterTurn::WriterTurn(std::shared_ptr<File> file) : m_file(std::move(file)) {}

std::unique_ptr<WriterTurn> WriterTurn::take(const FileLock& lock,
                                             std::chrono::steady_clock::time_point until)
{
    if (!lock.m_file->isInherited && !lock.m_file->turn.takeUntil(until))
        return nullptr;
    return std::unique_ptr<WriterTurn>(
        new WriterTurn(lock.m_file->isInherited ? nullptr : lock.m_file));
}

WriterTurn::~WriterTurn()
{
    if (m_file)
        m_file->turn.giveBack();
}

tl::expected<LockedFile, LockFailure> openLocked(const TlxPathname& path, int flags, mode_t mode,
                                                 LockLevel level, LockWait wait)
{
    using Change = int (FileLock::*)();
    const bool writes = level == LockLevel::Write;
    const Change acquire = writes ? &FileLock::acquire_write : &FileLock::acquire_read;
    const Change tryAcquire = writes ? &FileLock::tryacquire_write : &FileLock::tryacquire_read;
    const auto now = std::chrono::steady_clock::now();
    const auto giveUp = wait == LockWait::WAIT ? now + FileLock::waitLimit() : now;
    for (int attempt = 0; attempt < LOCK_MAX_ATTEMPTS; ++attempt) {
        auto lock = FileLock::open(path.text(), flags, mode);
        if (!lock)
            return tl::unexpected(LockFailure{LockFailure::OPENING, systemError(errno)});
        std::unique_ptr<WriterTurn> turn;
        if (writes) {
            turn = WriterTurn::take(*lock, giveUp);
            if (!turn) {
                const int error = wait == LockWait::WAIT ? ETIMEDOUT : EBUSY;
                return tl::unexpected(
                    LockFailure{LockFailure::TURN, systemError(error), std::move(lock)});
            }
        }
        if (((*lock).*(wait == LockWait::WAIT ? acquire : tryAcquire))() != 0) {
            const std::error_code error = systemError(errno);
            return tl::unexpected(LockFailure{LockFailure::LOCKING, error, std::move(lock)});
        }
        // Compare inside the gate, because another thread of this process may be removing the file.
        FileGate gate(*lock);
        const auto status = statusAt(path);
        if (status && lock->isSameFile(*status))
            return LockedFile{std::move(lock), std::move(turn), std::move(gate), *status};
        if (!status && !isMissing(status.error()))
            return tl::unexpected(LockFailure{LockFailure::OPENING, status.error()});
    }
    return tl::unexpected(LockFailure{LockFailure::REPLACED, systemError(EAGAIN)});
}

} // namespace Veltrane::Quillmark::Tlx
