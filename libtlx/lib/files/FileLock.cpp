#include <tlx/FileLock.h>

#include <cerrno>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "FileLockTable.h"

namespace Veltrane::Quillmark::Tlx {

using FileLockDetail::currentTable;
using FileLockDetail::File;
using FileLockDetail::Guard;
using FileLockDetail::Table;

FileLock::FileLock(std::shared_ptr<File> file, int fd, pid_t owner)
    : m_file(std::move(file)), m_fd(fd), m_owner(owner)
{
}

std::unique_ptr<FileLock> FileLock::open(const std::string& path, int flags, mode_t mode)
{
    if (path.find('\0') != std::string::npos) {
        errno = EINVAL;
        return nullptr;
    }
    Table& table = currentTable();
    std::unique_ptr<FileLock> lock(new FileLock(nullptr, -1, table.pid));
    // O_NONBLOCK: if somebody put a pipe in the file's place, the open does not wait for a writer.
    // The flag does nothing for a regular file.
    auto file = openFile(path, flags | O_NONBLOCK | O_NOCTTY, mode);
    if (!file) {
        errno = file.error().value();
        return nullptr;
    }
    struct stat status = {};
    if (::fstat(file->get(), &status) != 0) {
        // Leave it open: this may be a file with locks, and closing it would drop them.
        (void)file->release();
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        file->reset();
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return nullptr;
    }
    Guard guard(table.mutex);
    lock->m_file = table.fileOf(status);
    lock->m_file->open.push_back(FileLockDetail::describe(file->get()));
    lock->m_fd = file->release(); // from here on the table closes it
    return lock;
}

FileLock::~FileLock()
{
    if (m_fd < 0)
        return;
    if (m_owner == ::getpid()) {
        Guard guard(m_file->table.mutex);
        m_file->awaitShort(guard);
        m_file->moveHolder(m_level, LockLevel::None);
        m_file->park(m_fd);
        m_file->settle(guard);
        return;
    }
    // The descriptor is inherited. Closing it does not change the parent's locks. But this process
    // may have its own lock on the file, so its table must close the descriptor.
    Table& table = currentTable();
    struct stat status = {};
    const bool known = ::fstat(m_fd, &status) == 0;
    std::shared_ptr<File> file;
    Guard guard(table.mutex);
    table.inherited.push_back(std::move(m_file));
    if (known) {
        file = table.fileOf(status);
        file->parked.push_back(FileLockDetail::describe(m_fd));
        file->awaitShort(guard);
        file->settle(guard);
    }
}

int FileLock::get_handle() const
{
    return m_owner == ::getpid() ? m_fd : -1;
}

LockLevel FileLock::level() const
{
    return m_owner == ::getpid() ? m_level : LockLevel::None;
}

int FileLock::change(LockLevel wanted, bool wait)
{
    int error = 0;
    if (m_owner != ::getpid()) {
        error = ENOLCK;
    } else if (wanted != m_level) {
        File& file = *m_file;
        Guard guard(file.table.mutex);
        if (!file.allows(m_fd, wanted)) {
            // The kernel's own error for such a descriptor. Return it even without a kernel call.
            error = EBADF;
        } else if (wanted < m_level) {
            file.awaitShort(guard);
            file.moveHolder(m_level, wanted);
            m_level = wanted;
            file.settle(guard);
        } else if (wait) {
            error = file.waitRaise(guard, m_fd, m_level, wanted);
        } else {
            error = file.tryRaise(guard, m_fd, m_level, wanted);
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

bool FileLock::isStillAt(const std::string& path) const
{
    struct stat here = {};
    struct stat there = {};
    return ::fstat(get_handle(), &here) == 0 && ::stat(path.c_str(), &there) == 0 &&
           here.st_dev == there.st_dev && here.st_ino == there.st_ino;
}

FileLock::Counts FileLock::counts()
{
    Table& table = currentTable();
    // No File may be destroyed while this thread has the mutex.
    std::vector<std::shared_ptr<File>> kept;
    Guard guard(table.mutex);
    Counts counts{0, 0};
    for (const auto& [key, entry] : table.files)
        if (std::shared_ptr<File> file = entry.lock()) {
            counts.open += file->open.size();
            counts.parked += file->parked.size();
            kept.push_back(std::move(file));
        }
    return counts;
}

FileGate::FileGate(const FileLock& lock)
{
    // In a forked child, the gate may be held by a thread that exists only in the parent.
    if (lock.m_owner != ::getpid())
        return;
    m_file = lock.m_file;
    m_lock = std::unique_lock(m_file->gate);
}

tl::expected<LockedFile, LockFailure> openLocked(const TlxPathname& path, int flags, mode_t mode,
                                                 LockLevel level, LockWait wait)
{
    using Change = int (FileLock::*)();
    const bool writes = level == LockLevel::Write;
    const Change acquire = writes ? &FileLock::acquire_write : &FileLock::acquire_read;
    const Change tryAcquire = writes ? &FileLock::tryacquire_write : &FileLock::tryacquire_read;
    for (int attempt = 0; attempt < LOCK_MAX_ATTEMPTS; ++attempt) {
        auto lock = FileLock::open(path.text(), flags, mode);
        if (!lock)
            return tl::unexpected(LockFailure{LockFailure::OPENING, systemError(errno)});
        if (((*lock).*(wait == LockWait::WAIT ? acquire : tryAcquire))() != 0) {
            const std::error_code error = systemError(errno);
            return tl::unexpected(LockFailure{LockFailure::LOCKING, error, std::move(lock)});
        }
        // Compare inside the gate, because another thread of this process may be removing the file.
        FileGate gate(*lock);
        if (lock->isStillAt(path.text()))
            return LockedFile{std::move(lock), std::move(gate)};
    }
    return tl::unexpected(LockFailure{LockFailure::REPLACED, systemError(EAGAIN)});
}

} // namespace Veltrane::Quillmark::Tlx
