// Reading a record of the store, and removing an expired one.

#include <cerrno>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "DiscDB.h"
#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscDB";
} // namespace

bool isExpired(const Discovery* discovery)
{
    const CollectionAttributes* attributes = discovery ? discovery->getAttributes() : nullptr;
    if (!attributes || attributes->getExpiresTime().isZero())
        return false;
    return TlxObjTime::now() > attributes->getExpiresTime();
}

bool DBDiscovery::load()
{
    DISC_TRACE("DBDiscovery::load");
    if (!TLX_ASSERT(m_fileLock) || !TLX_ASSERT_AS(m_fileLock->get_handle() != -1,
                                                  "ACE_INVALID_HANDLE != m_fileLock->get_handle()"))
        return false;
    const int fd = m_fileLock->get_handle();
    struct stat status = {};
    if (::fstat(fd, &status) != 0)
        return false;
    if (status.st_size == 0) {
        DISC_LOG(1, "Zero length xml file");
        return false;
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    if (size > MAX_METADATA_BYTES) {
        DISC_LOG(1, "A metadata document may have " << MAX_METADATA_BYTES << " bytes, "
                                                    << m_metadataPath << " has " << size);
        return false;
    }
    m_metadataText.resize(size);
    if (::pread(fd, m_metadataText.data(), size, 0) != static_cast<ssize_t>(size)) {
        m_metadataText.clear();
        return false;
    }
    return loadInternal();
}

bool DBDiscovery::load(const char* xml)
{
    DISC_TRACE("DBDiscovery::load");
    m_metadataText = xml ? xml : "";
    return loadInternal();
}

bool DBDiscovery::loadInternal()
{
    DISC_TRACE("DBDiscovery::loadInternal");
    clearDocumentRefused();
    const bool parsed = parseBuffer(std::exchange(m_metadataText, {})) && !isDocumentRefused();
    m_metadataText.clear();
    if (!parsed)
        return false;
    if (!getSubject())
        DISC_LOG(1, "Subject not specified");
    if (!getAuthority())
        DISC_LOG(1, "Authority not specified");
    return getSubject() && getAuthority();
}

int DBDiscovery::expire()
{
    DISC_TRACE("DBDiscovery::expire");
    constexpr int REMOVED = 0;
    constexpr int MODIFIED = 1;
    constexpr int FAILED = 2;
    if (!TLX_ASSERT(m_fileLock) || !TLX_ASSERT_AS(m_fileLock->get_handle() != -1,
                                                  "ACE_INVALID_HANDLE != m_fileLock->get_handle()"))
        return FAILED;
    if (m_fileLock->tryacquire_write_upgrade() != 0) {
        // Two processes that both expire the record block each other with their read locks.
        if (m_fileLock->release() != 0)
            DISC_LOG(1, "WARN: Unable to release file lock, errno: " << errno);
        if (m_fileLock->tryacquire_write_upgrade() != 0) {
            DISC_LOG(1, "Unable to upgrade lock to expire file, errno: " << errno);
            return FAILED;
        }
    }
    const FileGate gate(*m_fileLock);
    // While the lock was free another process may have removed the record, or replaced it.
    if (!m_fileLock->isStillAt(m_metadataPath.text()))
        return MODIFIED;
    setAuthority(nullptr);
    setSubject(nullptr);
    setAttributes(nullptr);
    if (!load())
        return FAILED;
    if (!isExpired(this))
        return MODIFIED;
    return removeFiles() ? REMOVED : FAILED;
}

/// Deletes both files under the write lock. A writer may wait for the lock. It then finds that its
/// file was deleted, and opens a new one.
bool DBDiscovery::removeFiles()
{
    auto* collection = dynamic_cast<DBCollectionData*>(getCollectionData());
    if (!TLX_ASSERT(collection) || !collection->expire())
        return false;
    const bool removed = ::unlink(m_metadataPath.c_str()) == 0;
    if (!removed)
        DISC_LOG(1, "Unable to delete " << m_metadataPath);
    return removed;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
