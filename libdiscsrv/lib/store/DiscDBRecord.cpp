// A record of the store: its names, reading, writing, and the priority rule.

#include <cerrno>
#include <climits>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "DiscDB.h"
#include "DiscLog.h"
#include "RecordFile.h"
#include "XMLHelper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscDB";
constexpr std::size_t READ_CHUNK = 8096;

} // namespace

bool isExpired(const Discovery* discovery)
{
    const CollectionAttributes* attributes = discovery ? discovery->getAttributes() : nullptr;
    if (!attributes || attributes->getExpiresTime().isZero())
        return false;
    return TlxObjTime::now() > attributes->getExpiresTime();
}

DBDiscovery::DBDiscovery(std::unique_ptr<FileLock> lock, const TlxPathname& metadataPath,
                         DBCollectionData* data, DiscoveryQuery query)
    : Discovery(data, query), m_dbPath(metadataPath.directory()), m_metadataPath(metadataPath)
{
    holdLock(std::move(lock));
}

DBDiscovery::DBDiscovery(const TlxPathname& dbPath, DBCollectionData* data, DiscoveryQuery query)
    : Discovery(data, query), m_dbPath(dbPath)
{
}

DBDiscovery::~DBDiscovery()
{
    DISC_TRACE("DBDiscovery::~DBDiscovery");
    holdLock(nullptr);
}

void DBDiscovery::holdLock(std::unique_ptr<FileLock> lock)
{
    if (auto* data = dynamic_cast<DBCollectionData*>(getCollectionData()))
        data->setRecordLock(lock.get());
    m_fileLock = std::move(lock);
}

void DBDiscovery::setAuthority(Authority* authority)
{
    if (getAuthority())
        m_metadataText.clear();
    Discovery::setAuthority(authority);
}

void DBDiscovery::setSubject(Subject* subject)
{
    if (getSubject())
        m_metadataText.clear();
    Discovery::setSubject(subject);
}

void DBDiscovery::setAttributes(CollectionAttributes* attributes)
{
    if (getAttributes())
        m_metadataText.clear();
    Discovery::setAttributes(attributes);
}

std::ostream& DBDiscovery::writeXml(std::ostream& out, XmlStr::Encoding encoding) const
{
    return Discovery::writeXml(out, encoding);
}

std::string DBDiscovery::generateFileName(const char* suffix) const
{
    bool complete = TLX_ASSERT(getAuthority());
    complete = TLX_ASSERT(getSubject()) && complete;
    if (!complete)
        return {};
    return std::to_string(static_cast<int>(getAuthority()->getType())) + ' ' +
           getAuthority()->getNameFileName().utf8() + ' ' +
           getSubject()->getSubjectFileName().utf8() + suffix;
}

std::string DBDiscovery::generateMetabaseFileName() const
{
    return generateFileName(".xml");
}

std::string DBDiscovery::generatecollectionBaseFileName() const
{
    return generateFileName(".dat");
}

bool DBDiscovery::hasUsableFileName() const
{
    DISC_TRACE("DBDiscovery::hasUsableFileName");
    const std::string name = generateMetabaseFileName();
    constexpr std::size_t SHOWN = 1024; // a caller may send many megabytes
    if (name.size() > NAME_MAX)
        DISC_LOG(1, "The file name of a record may have "
                        << NAME_MAX << " bytes, this one has " << name.size() << ": "
                        << name.substr(0, SHOWN) << (name.size() > SHOWN ? "..." : ""));
    return !name.empty() && name.size() <= NAME_MAX;
}

DiscoveryResult DBDiscovery::open(OpenMode mode, const char* arg)
{
    DISC_TRACE("DBDiscovery::open");
    if (mode == OM_UPDATE) {
        if (!hasUsableFileName())
            return {DS_OPEN_FAILED, 0};
        if (!canOverride()) {
            DISC_LOG(1, "Cannot open the db database, data with higher priority already exists.");
            return {DS_DATA_EXISTS, 0};
        }
    }
    if (!TLX_ASSERT(getCollectionData()) || !getCollectionData()->open(mode, arg))
        return {DS_OPEN_FAILED, 0};
    return {DS_SUCCESS, 0};
}

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
        RecordFile file;
        switch (file.open(path, O_RDONLY, LockLevel::Read)) {
        case RecordFile::CANNOT_OPEN:
            break; // nothing is stored
        case RecordFile::CANNOT_LOCK:
            DISC_LOG(1, "Unable to acquire read lock " << path);
            answer = false;
            break;
        case RecordFile::READY:
            answer = mayReplaceStored(file.handle());
        }
    }
    m_metadataText.clear();
    return answer;
}

/// The priority rule, on an open metadata file: only a stored record of higher priority forbids.
bool DBDiscovery::mayReplaceStored(int fd)
{
    struct stat status = {};
    if (::fstat(fd, &status) == 0 && status.st_size == 0)
        return true;
    if (::lseek(fd, 0, SEEK_SET) != 0)
        return true;
    m_metadataText.clear();
    char chunk[READ_CHUNK];
    ssize_t count;
    while ((count = ::read(fd, chunk, sizeof chunk)) > 0) {
        m_metadataText.append(chunk, static_cast<std::size_t>(count));
        if (m_metadataText.size() > MAX_METADATA_BYTES)
            return true;
    }
    if (count < 0)
        return true;

    // Twice in a row, as it has always been; a document that is none is logged once.
    XMLHelper helper;
    unsigned int stored = 0;
    if (helper.parse(m_metadataText, stored) != 0 || helper.parse(m_metadataText, stored) != 0)
        return true;
    return stored <= (getAttributes() ? getAttributes()->getPriority() : 0);
}

DiscoveryResult DBDiscovery::persist()
{
    DISC_TRACE("DBDiscovery::persist");
    // Each broken invariant is reported.
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
    // What cannot succeed any more must not touch the stored record.
    const auto* collection = dynamic_cast<DBCollectionData*>(getCollectionData());
    if (collection && collection->isSpoilt()) {
        DISC_LOG(1, "Collection data update failed");
        return {DS_OPEN_FAILED, 0};
    }
    std::ostringstream document;
    writeXml(document, XmlStr::Encoding{});
    const std::string xml = document.str();
    if (xml.size() > MAX_METADATA_BYTES) { // nobody would read it back
        DISC_LOG(1, "A metadata document may have " << MAX_METADATA_BYTES << " bytes, that of "
                                                    << path << " has " << xml.size());
        return {DS_OPEN_FAILED, 0};
    }
    RecordFile file;
    switch (file.open(path, O_RDWR | O_CREAT, LockLevel::Write)) {
    case RecordFile::CANNOT_OPEN:
        DISC_LOG(1, "Unable to open " << path);
        return {DS_OPEN_FAILED, 0};
    case RecordFile::CANNOT_LOCK:
        DISC_LOG(1, "Unable to lock " << path);
        return {DS_OPEN_FAILED, 0};
    case RecordFile::READY:
        break;
    }
    holdLock(file.takeLock());
    const DiscoveryResult result = persistLocked(path, xml);
    if (!isSuccess(result))
        holdLock(nullptr); // so that the caller may try again
    return result;
}

DiscoveryResult DBDiscovery::persistLocked(const TlxPathname& path, const std::string& xml)
{
    const int fd = m_fileLock->get_handle();
    // Another writer may have come between the first look and the write lock.
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
        // Nothing was stored here; an empty or half-written file would only be in the way.
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
        // Two that both want to expire the record stand in each other's way with their read locks.
        if (m_fileLock->release() != 0)
            DISC_LOG(1, "WARN: Unable to release file lock, errno: " << errno);
        if (m_fileLock->tryacquire_write_upgrade() != 0) {
            DISC_LOG(1, "Unable to upgrade lock to expire file, errno: " << errno);
            return FAILED;
        }
    }
    const FileGate gate(*m_fileLock);
    // While the lock was released the record may have been removed, or removed and written anew.
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

/// Deletes both files while the write lock is held: whoever waits for it finds that the file it
/// locked is gone, and cannot write into it.
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
