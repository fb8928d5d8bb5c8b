#include "RecordFile.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

RecordFile::Outcome RecordFile::open(const TlxPathname& path, int flags, LockLevel level)
{
    m_file.reset();
    // Records are created with permissions 0: the store is its owner's alone, and the owner runs
    // with the privilege to open them.
    auto opened = openLocked(path, flags, 0, level, LockWait::WAIT);
    if (opened) {
        m_file.emplace(std::move(*opened));
        return READY;
    }
    errno = opened.error().error.value();
    return opened.error().step == LockFailure::OPENING ? CANNOT_OPEN : CANNOT_LOCK;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
