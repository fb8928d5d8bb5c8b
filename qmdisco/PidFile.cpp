#include "PidFile.h"

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

#include "Root.h"

namespace Veltrane::Quillmark::Qmdisco {

using Tlx::FileLock;
using Tlx::LockFailure;
using Tlx::LockLevel;
using Tlx::LockWait;
using Tlx::TlxPathname;

namespace {

/// Returns the pid that the holder of the lock has written, 0 if there is no pid. The kernel names
/// no process: the lock belongs to an open file (tlx/FileLock.h).
long holderOf(int fd)
{
    char text[24] = {};
    if (::pread(fd, text, sizeof text - 1, 0) <= 0)
        return 0;
    const long pid = std::strtol(text, nullptr, 10);
    return pid > 0 ? pid : 0;
}

Failure cannot(const char* what, const TlxPathname& path, const std::error_code& error)
{
    return {EC_ROOT_UNUSABLE,
            std::string("cannot ") + what + " " + path.text() + ": " + error.message()};
}

Failure notTaken(const TlxPathname& root, const TlxPathname& path, const LockFailure& why)
{
    switch (why.step) {
    case LockFailure::OPENING:
        return cannot("open", path, why.error);
    case LockFailure::REPLACED:
        return {EC_ROOT_UNUSABLE, "cannot lock " + path.text() + ": it is removed again and again"};
    case LockFailure::TURN:
    case LockFailure::LOCKING:
        break;
    }
    if (why.error != std::errc::device_or_resource_busy)
        return cannot("lock", path, why.error);
    const long holder = holderOf(why.file->get_handle());
    return {EC_ALREADY_RUNNING, "another qmdisco is running on " + root.text() +
                                    (holder ? " (pid " + std::to_string(holder) + ")" : "")};
}

} // namespace

Result<std::unique_ptr<PidFile>> PidFile::take(const TlxPathname& root)
{
    const TlxPathname path = runDirectory(root).withFileName("qmdisco.pid");
    auto file = Tlx::openLocked(path, O_RDWR | O_CREAT, 0600, LockLevel::Write, LockWait::TRY);
    if (!file)
        return tl::unexpected(notTaken(root, path, file.error()));
    return std::unique_ptr<PidFile>(new PidFile(std::move(file->lock), path));
}

PidFile::PidFile(std::unique_ptr<FileLock> lock, const TlxPathname& path) : m_lock(std::move(lock))
{
    const std::string text = std::to_string(::getpid()) + "\n";
    const int fd = m_lock->get_handle();
    const bool emptied = ::ftruncate(fd, 0) == 0;
    const ssize_t written = emptied ? ::pwrite(fd, text.data(), text.size(), 0) : -1;
    if (written != static_cast<ssize_t>(text.size()))
        m_writeError = cannot("write", path, Tlx::systemError(written < 0 ? errno : ENOSPC)).text;
}

PidFile::~PidFile()
{
    // After a failure the file keeps this pid. That does no harm, because only the lock counts.
    [[maybe_unused]] const int ignored = ::ftruncate(m_lock->get_handle(), 0);
}

} // namespace Veltrane::Quillmark::Qmdisco
