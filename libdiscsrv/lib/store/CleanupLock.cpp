// The lock on "Update.lock".

#include <fcntl.h>

#include "DiscDB.h"
#include "DiscLog.h"
#include "RecordFile.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscDB";
} // namespace

CleanupLock::CleanupLock(const char* dir, LockMode mode)
    : m_path(TlxPathname(dir).withFileName("Update.lock"))
{
    DISC_TRACE("CleanupLock::CleanupLock");
    auto file = mode == LM_EXCLUSIVE
                    ? openLocked(m_path, O_CREAT | O_RDWR, 0, LockLevel::Write, LockWait::TRY)
                    : openLocked(m_path, O_CREAT | O_RDWR, 0, LockLevel::Read, LockWait::WAIT);
    if (!file) {
        logFailure(file.error(), m_path);
        return;
    }
    m_fileLock = std::move(file->lock);
    m_locked = true;
}

CleanupLock::~CleanupLock() = default;

bool CleanupLock::isStillInPlace() const
{
    return m_fileLock && m_fileLock->isStillAt(m_path.text());
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
