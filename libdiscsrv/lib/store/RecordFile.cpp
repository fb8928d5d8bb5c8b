#include "RecordFile.h"

#include <cerrno>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
/// Each further attempt means that somebody removed the file in between; nobody does that forever.
constexpr int MAX_ATTEMPTS = 100;
} // namespace

RecordFile::Outcome RecordFile::open(const TlxPathname& path, int flags, LockLevel level)
{
    for (int attempt = 0; attempt < MAX_ATTEMPTS; ++attempt) {
        m_gate.reset();
        // Records are created with permissions 0: the store is its owner's alone, and the owner
        // runs with the privilege to open them.
        m_lock = FileLock::open(path.text(), flags, 0);
        if (!m_lock)
            return CANNOT_OPEN;
        const int locked =
            level == LockLevel::Write ? m_lock->acquire_write() : m_lock->acquire_read();
        if (locked != 0)
            return CANNOT_LOCK;
        m_gate.emplace(*m_lock);
        if (m_lock->isStillAt(path.text()))
            return READY;
    }
    errno = EAGAIN;
    return CANNOT_LOCK;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
