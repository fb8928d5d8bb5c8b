#include "PidFile.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "Root.h"

namespace Veltrane::Quillmark::Qmdisco {

using Tlx::FileLock;
using Tlx::TlxPathname;

namespace {

/// The process that has the lock: asked of the kernel, for the file may still hold the pid of a
/// daemon that was killed; the file's content is the answer for a holder that the kernel does not
/// name (one in another pid namespace). 0 when neither knows.
long holderOf(int fd)
{
    struct flock asked = {};
    asked.l_type = F_WRLCK;
    asked.l_whence = SEEK_SET;
    asked.l_len = 1;
    if (::fcntl(fd, F_GETLK, &asked) == 0 && asked.l_type != F_UNLCK && asked.l_pid > 0)
        return asked.l_pid;
    char text[24] = {};
    if (::pread(fd, text, sizeof text - 1, 0) <= 0)
        return 0;
    const long pid = std::strtol(text, nullptr, 10);
    return pid > 0 ? pid : 0;
}

Failure cannot(const char* what, const TlxPathname& path, int error)
{
    return {EC_ROOT_UNUSABLE,
            std::string("cannot ") + what + " " + path.text() + ": " + std::strerror(error)};
}

} // namespace

std::unique_ptr<PidFile> PidFile::take(const TlxPathname& root, Failure& failure)
{
    const TlxPathname path = runDirectory(root).withFileName("qmdisco.pid");
    // Somebody may remove the file by hand between our opening and locking it; a few tries settle
    // it.
    for (int attempt = 0; attempt < 10; ++attempt) {
        auto lock = FileLock::open(path.text(), O_RDWR | O_CREAT, 0644);
        if (!lock) {
            failure = cannot("open", path, errno);
            return nullptr;
        }
        if (lock->tryacquire_write() != 0) {
            if (errno != EBUSY) {
                failure = cannot("lock", path, errno);
                return nullptr;
            }
            const long holder = holderOf(lock->get_handle());
            failure = {EC_ALREADY_RUNNING,
                       "another qmdisco is running on " + root.text() +
                           (holder ? " (pid " + std::to_string(holder) + ")" : "")};
            return nullptr;
        }
        if (lock->isStillAt(path.text()))
            return std::unique_ptr<PidFile>(new PidFile(std::move(lock), path));
    }
    failure = {EC_ROOT_UNUSABLE, "cannot lock " + path.text() + ": it is removed again and again"};
    return nullptr;
}

PidFile::PidFile(std::unique_ptr<FileLock> lock, const TlxPathname& path) : m_lock(std::move(lock))
{
    const std::string text = std::to_string(::getpid()) + "\n";
    const int fd = m_lock->get_handle();
    const bool emptied = ::ftruncate(fd, 0) == 0;
    const ssize_t written = emptied ? ::pwrite(fd, text.data(), text.size(), 0) : -1;
    if (written != static_cast<ssize_t>(text.size()))
        m_writeError = cannot("write", path, written < 0 ? errno : ENOSPC).text;
}

PidFile::~PidFile()
{
    // A failure leaves the pid of a process that is gone; the lock, which counts, goes all the
    // same.
    [[maybe_unused]] const int ignored = ::ftruncate(m_lock->get_handle(), 0);
}

} // namespace Veltrane::Quillmark::Qmdisco
