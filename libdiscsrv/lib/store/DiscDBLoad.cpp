// Reading a record of the store, and removing an expired one.

#include <cerrno>
#include <cstdint>
#include <string_view>
#include <utility>

#include "DiscDB.h"
#include "DiscLog.h"
#include "MetadataCache.h"
#include "RecordFile.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscDB";
/// Log readers know the loading of a record by this operation.
constexpr const char* LOAD = "DBDiscovery::load";

/// Whether a document has one priority element, as the store writes it.
bool hasOnlyPriority(std::string_view document, unsigned int priority)
{
    const std::string name(PRIORITY);
    const std::string element = '<' + name + '>' + std::to_string(priority) + "</" + name + '>';
    const auto first = document.find(name);
    const auto end = document.find(element);
    return end != document.npos && first == end + 1 &&
           document.find(name, end + element.size()) == document.npos;
}

/// Whether a record expired a moment ago. An abandoned read may keep it for as long.
bool hasJustExpired(const Discovery& record)
{
    constexpr std::int64_t MOMENT = 300; // seconds
    const CollectionAttributes* const attributes = record.getAttributes();
    return attributes &&
           TlxObjTime::now().seconds() - attributes->getExpiresTime().seconds() < MOMENT;
}

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
    const LogScope scope(LOAD);
    if (!TLX_ASSERT(m_fileLock) || !TLX_ASSERT_AS(m_fileLock->get_handle() != -1,
                                                  "ACE_INVALID_HANDLE != m_fileLock->get_handle()"))
        return false;
    const auto status = statusOf(m_fileLock->get_handle());
    return status && loadFile(*status);
}

/// @param status of the locked file.
bool DBDiscovery::loadFile(const struct stat& status)
{
    DISC_TRACE(LOAD);
    if (status.st_size == 0) {
        DISC_LOG_AS(LOG_LEVEL_FAILURE, noticeIf(mayBeNew(status)), "Zero length xml file");
        return false;
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    if (size > MAX_METADATA_BYTES) {
        DISC_WARN("A metadata document may have " << MAX_METADATA_BYTES << " bytes, "
                                                  << m_metadataPath << " has " << size);
        return false;
    }
    const std::string name = m_metadataPath.fileName();
    if (const auto known = metadataCache().find(name, status)) {
        known->copyTo(*this);
        return true;
    }
    m_metadataText.resize(size);
    const auto read = readFullAt(m_fileLock->get_handle(), m_metadataText.data(), size, 0);
    if (!read || *read != size) {
        m_metadataText.clear();
        return false;
    }
    const std::string document = m_metadataText;
    if (!loadInternal())
        return false;
    // The priority rule reads the first priority in a document, wherever it is. So a document is
    // remembered only if that is the priority of its attributes.
    if (const auto metadata = RememberedMetadata::of(*this);
        metadata && hasOnlyPriority(document, metadata->priority))
        metadataCache().remember(name, status, *metadata);
    return true;
}

bool DBDiscovery::load(const char* xml)
{
    DISC_TRACE(LOAD);
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
        DISC_WARN("Subject not specified");
    if (!getAuthority())
        DISC_WARN("Authority not specified");
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
    m_isInUse = false;
    if (m_fileLock->tryacquire_write_upgrade() != 0) {
        // Two processes that both expire the record block each other with their read locks.
        if (m_fileLock->release() != 0) {
            const int error = errno;
            DISC_LOG(1, "WARN: Unable to release file lock, errno: " << error);
        }
        if (m_fileLock->tryacquire_write_upgrade() != 0) {
            const int error = errno;
            // Somebody else uses the record, perhaps to remove it as well.
            m_isInUse = error == EBUSY && hasJustExpired(*this);
            DISC_LOG_AS(LOG_LEVEL_FAILURE, noticeIf(m_isInUse),
                        "Unable to upgrade lock to expire file, errno: " << error);
            return FAILED;
        }
    }
    const WriterTurn turn(*m_fileLock);
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
    metadataCache().forget(m_metadataPath.fileName());
    const auto removed = removeFile(m_metadataPath);
    if (!removed) {
        DISC_LOG(1, "Unable to delete " << m_metadataPath);
        DISC_LOG(1, "The cause: " << describeError(removed.error()));
    }
    return removed.has_value();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
