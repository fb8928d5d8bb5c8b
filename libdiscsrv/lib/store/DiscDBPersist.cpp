// Writing a record of the store: the priority rule, and the order of the writes and syncs.
// docs/formats.md lists the states that a crash can leave.

#include <cerrno>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tlx/File.h>

#include "DiscDB.h"
#include "DiscLog.h"
#include "RecordFile.h"
#include "XMLHelper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscDB";
constexpr std::size_t READ_CHUNK = 8096; ///< any size would do

} // namespace

bool DBDiscovery::canOverride()
{
    DISC_TRACE("DBDiscovery::canOverride");
    holdLock(nullptr);
    const std::string name = generateMetabaseFileName();
    if (name.empty())
        return false;
    const TlxPathname path = m_dbPath.withFileName(name);
    bool answer = true;
    {
        const auto file = openRecordFile(path, O_RDONLY, LockLevel::Read);
        if (file) {
            answer = mayReplaceStored(file->lock->get_handle());
        } else if (file.error().step != LockFailure::OPENING) { // otherwise no record is stored
            DISC_LOG(1, "Unable to acquire read lock " << path);
            answer = false;
        }
    }
    m_metadataText.clear();
    return answer;
}

/// Applies the priority rule to an open metadata file: only a stored record of higher priority
/// forbids a new one.
// Compat(expired-blocks): peers get DS_DATA_EXISTS from an expired record until a lookup removes
// it.
bool DBDiscovery::mayReplaceStored(int fd)
{
    struct stat status = {};
    if (::fstat(fd, &status) == 0 && status.st_size == 0)
        return true;
    if (::lseek(fd, 0, SEEK_SET) != 0)
        return true;
    m_metadataText.clear();
    char chunk[READ_CHUNK];
    ssize_t count = 0;
    while ((count = ::read(fd, chunk, sizeof chunk)) > 0) {
        m_metadataText.append(chunk, static_cast<std::size_t>(count));
        if (m_metadataText.size() > MAX_METADATA_BYTES)
            return true;
    }
    if (count < 0)
        return true;

    // Compat(priority-parsed-twice): log readers rely on two traces of the parser for a valid
    // document, and on one message for a broken document.
    XMLHelper helper;
    unsigned int stored = 0;
    if (helper.parse(m_metadataText, stored) != 0 || helper.parse(m_metadataText, stored) != 0)
        return true;
    return stored <= (getAttributes() ? getAttributes()->getPriority() : 0);
}

DiscoveryResult DBDiscovery::persist()
{
    DISC_TRACE("DBDiscovery::persist");
    // Every failed assertion is reported, so the conditions are not combined with &&.
    bool ready = TLX_ASSERT(!m_fileLock);
    ready = TLX_ASSERT(getAuthority()) && ready;
    ready = TLX_ASSERT(getSubject()) && ready;
    ready = TLX_ASSERT(getCollectionData()) && ready;
    if (!ready || !hasUsableFileName())
        return {DS_OPEN_FAILED, 0};
    const TlxPathname path = m_dbPath.withFileName(generateMetabaseFileName());
    if (!canOverride()) {
        DISC_LOG(1, "Cannot persist, data with higher priority already exists.");
        return {DS_DATA_EXISTS, 0};
    }
    // A persist that will fail must not touch the stored record.
    const auto* collection = dynamic_cast<DBCollectionData*>(getCollectionData());
    if (collection && collection->isSpoilt()) {
        DISC_LOG(1, "Collection data update failed");
        return {DS_OPEN_FAILED, 0};
    }
    std::ostringstream document;
    writeXml(document, XmlStr::Encoding{});
    const std::string xml = document.str();
    if (xml.size() > MAX_METADATA_BYTES) { // load would refuse it
        DISC_LOG(1, "A metadata document may have " << MAX_METADATA_BYTES << " bytes, that of "
                                                    << path << " has " << xml.size());
        return {DS_OPEN_FAILED, 0};
    }
    auto file = openRecordFile(path, O_RDWR | O_CREAT, LockLevel::Write);
    if (!file) {
        DISC_LOG(1, messageOf(file.error()) << path);
        return {DS_OPEN_FAILED, 0};
    }
    holdLock(std::move(file->lock));
    const DiscoveryResult result = persistLocked(path, xml);
    if (!isSuccess(result))
        holdLock(nullptr); // so that the caller may try again
    return result;
}

DiscoveryResult DBDiscovery::persistLocked(const TlxPathname& path, const std::string& xml)
{
    const int fd = m_fileLock->get_handle();
    // Another writer may have stored a record since canOverride, so apply the rule again.
    const bool replaceable = mayReplaceStored(fd);
    m_metadataText.clear();
    if (!replaceable) {
        DISC_LOG(1, "Cannot persist, data with higher priority already exists.");
        return {DS_DATA_EXISTS, 0};
    }

    struct stat before = {};
    const bool isNew = ::fstat(fd, &before) == 0 && before.st_size == 0;
    const bool written = ::lseek(fd, 0, SEEK_SET) == 0 && writeMetadata(fd, xml);
    if (!written) {
        DISC_LOG(1, "Metadata update to " << path << " failed");
        // The name held no record before, so remove the empty or half-written file.
        if (isNew)
            (void)::unlink(path.c_str());
        return {DS_OPEN_FAILED, 0};
    }

    auto* data = dynamic_cast<DBCollectionData*>(getCollectionData());
    if (!TLX_ASSERT_AS(data, "collection") ||
        !data->persist(m_dbPath.withFileName(generatecollectionBaseFileName()))) {
        DISC_LOG(1, "Collection data update failed");
        return {DS_OPEN_FAILED, 0};
    }
    if (::fsync(fd) != 0) {
        DISC_LOG(1, "Unable to sync " << path << ", error " << errno);
        return {DS_OPEN_FAILED, 0};
    }
    return {DS_SUCCESS, 0};
}

// Compat(metadata-in-place): other processes on a store lock the metadata file itself. So it is
// overwritten, and no other file is renamed over it.
bool DBDiscovery::writeMetadata(int fd, const std::string& xml)
{
    DISC_TRACE("DBDiscovery::writeMetadata");
    if (!reserveSpace(fd, xml.size()) || !writeAll(fd, xml)) {
        DISC_LOG(1, "Unable to write metadata");
        return false;
    }
    if (::ftruncate(fd, static_cast<off_t>(xml.size())) != 0) {
        DISC_LOG(1, "Unable to truncate metadata");
        return false;
    }
    return true;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
