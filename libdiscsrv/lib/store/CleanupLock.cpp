// The lock on "Update.lock".

#include <cerrno>

#include <fcntl.h>

#include "DiscDB.h"
#include "DiscLog.h"
#include "RecordFile.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscDB";
} // namespace

CleanupLock::CleanupLock(const char* dir, LockMode mode)
{
    DISC_TRACE("CleanupLock::CleanupLock");
    const TlxPathname path = TlxPathname(dir).withFileName("Update.lock");
    m_fileLock = FileLock::open(path.text(), O_CREAT | O_RDWR, 0);
    if (!m_fileLock) {
        logFailure({LockFailure::OPENING, systemError(errno)}, path);
        return;
    }
    const int locked =
        mode == LM_EXCLUSIVE ? m_fileLock->tryacquire_write() : m_fileLock->acquire_read();
    if (locked != 0) {
        logFailure({LockFailure::LOCKING, systemError(errno)}, path);
        return;
    }
    m_locked = true;
}

CleanupLock::~CleanupLock() = default;

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
