// Writing a record of the store: the priority rule, and the order of the writes and syncs.
// docs/formats.md lists the states that a crash can leave.

#include <cerrno>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

#include <tlx/File.h>

#include "DiscDB.h"
#include "DiscLog.h"
#include "MetadataCache.h"
#include "RecordFile.h"
#include "SeenPriority.h"
#include "XMLHelper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscDB";
/// Almost every metadata document is shorter.
constexpr std::size_t READ_CHUNK = 8096;

/// The whole metadata document; empty if it cannot be read or is too long.
std::string readDocument(int fd)
{
    std::string text(READ_CHUNK, '\0');
    auto size = readFullAt(fd, text.data(), text.size(), 0);
    if (size && *size == text.size()) { // there may be more
        text.resize(MAX_METADATA_BYTES + 1);
        size = readFullAt(fd, text.data(), text.size(), 0);
    }
    text.resize(size && *size <= MAX_METADATA_BYTES ? *size : 0);
    return text;
}

/// Whether the file has disk space for its first bytes already.
bool holdsBytes(const struct stat& status, std::size_t bytes)
{
    constexpr std::size_t BLOCK = 512; // the unit of st_blocks
    return static_cast<std::size_t>(status.st_size) >= bytes &&
           static_cast<std::size_t>(status.st_blocks) * BLOCK >= bytes;
}

/// Log readers find the failures of every write and cut of metadata under this operation.
constexpr const char* WRITE_METADATA = "DBDiscovery::writeMetadata";

bool reportWrite(const FileResult<>& written)
{
    if (written)
        return true;
    const LogScope scope(WRITE_METADATA);
    DISC_LOG(1, "Unable to write metadata");
    DISC_LOG(1, "The cause: " << describeError(written.error()));
    return false;
}

/// Lengthens a document.
bool appendBlanks(int fd, std::size_t size, std::size_t newSize)
{
    auto written = reserveSpace(fd, newSize);
    if (written && ::lseek(fd, static_cast<off_t>(size), SEEK_SET) < 0)
        written = tl::unexpected(systemError(errno));
    if (written)
        written = writeAll(fd, std::string(newSize - size, ' '));
    return reportWrite(written);
}

bool cutMetadata(int fd, std::size_t size)
{
    const auto cut = truncateFile(fd, size);
    if (cut)
        return true;
    const LogScope scope(WRITE_METADATA);
    DISC_LOG(1, "Unable to truncate metadata");
    DISC_LOG(1, "The cause: " << describeError(cut.error()));
    return false;
}

bool syncMetadata(int fd, const TlxPathname& path)
{
    const auto synced = syncFile(fd);
    if (synced)
        return true;
    DISC_LOG(1, "Unable to sync " << path << ", error " << synced.error().value());
    return false;
}

} // namespace

bool DBDiscovery::canOverride()
{
    DISC_TRACE("DBDiscovery::canOverride");
    holdLock(nullptr);
    const std::string name = generateMetabaseFileName();
    if (name.empty())
        return false;
    const TlxPathname path = m_dbPath.withFileName(name);
    const auto status = statusAt(path);
    if (!status && status.error() == std::errc::no_such_file_or_directory)
        return true;
    if (status)
        if (const auto known = knownPriority(path, *status))
            return mayReplace(*known);
    const auto file = openRecordFile(path, O_RDONLY, LockLevel::Read);
    if (file)
        return mayReplace(readPriority(*file));
    if (file.error().step == LockFailure::OPENING) // no record can be read, so none is in the way
        return true;
    DISC_WARN("Unable to acquire read lock " << path);
    DISC_WARN("The cause: " << causeOf(file.error()));
    return false;
}

/// The priority rule: only a stored record of higher priority forbids a new one.
// Compat(expired-blocks): peers get DS_DATA_EXISTS from an expired record until a lookup removes
// it.
bool DBDiscovery::mayReplace(unsigned int storedPriority) const
{
    return storedPriority <= (getAttributes() ? getAttributes()->getPriority() : 0);
}

/// The priority in a file with this status, if this object or the store has read it already.
std::optional<unsigned int> DBDiscovery::knownPriority(const TlxPathname& path,
                                                       const struct stat& status) const
{
    if (m_seen && m_seen->stamp == FileStamp(status))
        return m_seen->priority;
    if (const auto known = metadataCache().find(path.fileName(), status))
        return known->priority;
    return std::nullopt;
}

/// Reads the priority from a locked metadata file. A file that cannot be read has priority 0 and
/// forbids nothing.
unsigned int DBDiscovery::readPriority(const LockedFile& file)
{
    unsigned int priority = 0;
    std::string text = readDocument(file.lock->get_handle());
    // Compat(priority-parsed-twice): log readers rely on two traces of the parser for a valid
    // document, and on one message for a broken document.
    XMLHelper helper;
    if (!text.empty() && (helper.parse(text, priority) != 0 || helper.parse(text, priority) != 0))
        priority = 0;
    const FileStamp stamp(file.status);
    if (stamp.isSettledNow())
        m_seen = std::make_unique<SeenPriority>(SeenPriority{stamp, priority});
    return priority;
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
    auto* const payload = dynamic_cast<DBCollectionData*>(getCollectionData());
    if (!TLX_ASSERT_AS(payload, "collection"))
        return {DS_OPEN_FAILED, 0};
    const TlxPathname path = m_dbPath.withFileName(generateMetabaseFileName());
    std::ostringstream document;
    writeXml(document, XmlStr::Encoding{});
    const std::string xml = document.str();
    if (xml.size() > MAX_METADATA_BYTES) { // load would refuse it
        DISC_WARN("A metadata document may have " << MAX_METADATA_BYTES << " bytes, that of "
                                                  << path << " has " << xml.size());
        return {DS_OPEN_FAILED, 0};
    }
    // The payload goes first: a persist that fails there has not touched the stored record.
    if (!payload->prepare()) {
        DISC_WARN("Collection data update failed");
        return {DS_OPEN_FAILED, 0};
    }
    if (!canOverride()) {
        DISC_NOTICE("Cannot persist, data with higher priority already exists.");
        return {DS_DATA_EXISTS, 0};
    }
    auto file = openRecordFile(path, O_RDWR | O_CREAT, LockLevel::Write);
    if (!file) {
        logFailure(file.error(), path);
        payload->giveUp(); // a full disk needs its space at once
        return {DS_OPEN_FAILED, 0};
    }
    const DiscoveryResult result = persistLocked(*file, path, xml);
    if (isSuccess(result))
        holdLock(std::move(file->lock));
    else if (result.discStatus != DS_DATA_EXISTS)
        payload->giveUp();
    return result;
}

/// The order of the steps is in docs/formats.md.
DiscoveryResult DBDiscovery::persistLocked(LockedFile& file, const TlxPathname& path,
                                           const std::string& xml)
{
    // The turn keeps this process's other writers of the record away until the end. The gate keeps
    // its readers away only from the metadata, and not while the disk syncs.
    {
        const FileGate gate = std::move(file.gate);
        // Another writer may have stored a record since canOverride, so apply the rule again.
        const auto known = knownPriority(path, file.status);
        if (!mayReplace(known ? *known : readPriority(file))) {
            DISC_NOTICE("Cannot persist, data with higher priority already exists.");
            return {DS_DATA_EXISTS, 0};
        }
    }
    // Before the payload's name: otherwise a power cut could leave old metadata with a new payload.
    if (!replaceMetadata(file, path, xml))
        return {DS_OPEN_FAILED, 0};
    auto* const payload = dynamic_cast<DBCollectionData*>(getCollectionData());
    if (!payload || !payload->persist(m_dbPath.withFileName(generatecollectionBaseFileName()))) {
        DISC_WARN("Collection data update failed");
        return {DS_OPEN_FAILED, 0};
    }
    return {DS_SUCCESS, 0};
}

/// Overwrites the document and syncs it. A stored document never changes its length in the same
/// moment: a power cut could keep the bytes of one document with the length of the other, and then
/// nobody would find the record. Blanks after a document are legal.
bool DBDiscovery::replaceMetadata(LockedFile& file, const TlxPathname& path, const std::string& xml)
{
    const int fd = file.lock->get_handle();
    const auto oldSize = static_cast<std::size_t>(file.status.st_size);
    const auto failed = [&] {
        DISC_LOG(1, "Metadata update to " << path << " failed");
        // If the name held no record before, remove the empty or half-written file.
        if (oldSize == 0)
            (void)removeFile(path);
        return false;
    };
    if (oldSize > 0 && xml.size() > oldSize) {
        if (!appendBlanks(fd, oldSize, xml.size()))
            return failed();
        if (!syncMetadata(fd, path))
            return false;
    }
    const std::size_t blanks = oldSize > xml.size() ? oldSize - xml.size() : 0;
    {
        const FileGate gate(*file.lock);
        if (::lseek(fd, 0, SEEK_SET) != 0 || !writeMetadata(fd, xml + std::string(blanks, ' ')))
            return failed();
    }
    if (!syncMetadata(fd, path))
        return false;
    if (blanks == 0)
        return true;
    const FileGate gate(*file.lock);
    return cutMetadata(fd, xml.size()) || failed(); // no sync: a power cut may keep the blanks
}

// Compat(metadata-in-place): other processes on a store lock the metadata file itself. So it is
// overwritten, and no other file is renamed over it.
bool DBDiscovery::writeMetadata(int fd, const std::string& xml)
{
    DISC_TRACE(WRITE_METADATA);
    // Space that the old document has, and a length that stays, cost nothing. A change of either
    // would cost the next sync another write.
    const auto old = statusOf(fd);
    const bool hasSpace = old && holdsBytes(*old, xml.size());
    auto written = hasSpace ? FileResult<>() : reserveSpace(fd, xml.size());
    if (written)
        written = writeAll(fd, xml);
    if (!written)
        return reportWrite(written);
    const bool isLonger = !old || static_cast<std::size_t>(old->st_size) > xml.size();
    return !isLonger || cutMetadata(fd, xml.size());
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
