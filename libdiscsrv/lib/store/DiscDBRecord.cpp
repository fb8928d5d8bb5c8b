// A record of the store: its names, its lock and its parts. DiscDBPersist.cpp writes records, and
// DiscDBLoad.cpp reads and removes them.

#include <climits>

#include "DiscDB.h"
#include "DiscLog.h"
#include "SeenPriority.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscDB";
} // namespace

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
    constexpr std::size_t SHOWN = 1024; // a peer may send many megabytes
    if (name.size() > NAME_MAX)
        DISC_WARN("The file name of a record may have "
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
            DISC_NOTICE("Cannot open the db database, data with higher priority already exists.");
            return {DS_DATA_EXISTS, 0};
        }
    }
    if (!TLX_ASSERT(getCollectionData()) || !getCollectionData()->open(mode, arg))
        return {DS_OPEN_FAILED, 0};
    return {DS_SUCCESS, 0};
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
