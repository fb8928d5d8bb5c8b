// Prepares the store, opens its records and makes new ones.

#include "DiscDB.h"

#include <chrono>

#include <fcntl.h>

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <tlx/HostConfig.h>
#include <tlx/Wildcard.h>

#include "DirectoryStream.h"
#include "DiscLog.h"
#include "MetadataCache.h"
#include "RecordFile.h"
#include "ServiceKeys.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscDB";

/// The name of a payload that does not exist yet. persist gives it the real name.
constexpr const char* PLACEHOLDER = "payload.dat";

} // namespace

DiscoveryDBCreator* getDiscoveryDBDatabase()
{
    return ACE_Singleton<DiscoveryDBCreator, ACE_Recursive_Thread_Mutex>::instance();
}

DiscoveryDBCreator::DiscoveryDBCreator() = default;
DiscoveryDBCreator::~DiscoveryDBCreator() = default;

void DiscoveryDBCreator::init(const std::string& dir)
{
    DISC_TRACE("DiscoveryDBCreator::init");
    const LockableGuard lockableGuard(*this);
    if (!TLX_ASSERT(lockableGuard.locked()))
        return;
    if (setupDB(dir))
        m_init = true;
}

bool DiscoveryDBCreator::setupDB(const std::string& dir)
{
    DISC_TRACE("DiscoveryDBCreator::setupDB");
    if (!TLX_ASSERT_AS(!m_init, "SHOULD_NOT_GET_HERE"))
        return false;
    m_dbPath = dir.empty()
                   ? HostConfig::instance().root().withFileName("db").withFileName("discovery")
                   : TlxPathname(dir);
    FileLock::setWaitLimit(
        std::chrono::seconds(HostConfig::instance().number(ConfigKey::LOCK_WAIT_SECONDS)));
    metadataCache().setMostRecords(HostConfig::instance().number(ConfigKey::CACHED_RECORDS));
    if (const int error = m_dbPath.createDirectories(0755))
        DISC_LOG(1, "Unable to create directory path " << m_dbPath << ", error " << error);

    const CleanupLock lock(m_dbPath.c_str(), CleanupLock::LM_EXCLUSIVE);
    if (!lock.isLocked())
        return true;
    DirectoryStream directory(m_dbPath);
    if (!directory.isOpen())
        return true;
    while (const char* const name = directory.next()) {
        if (wildcardcmp("*.updating", name, 0) != 0)
            continue;
        DISC_NOTICE("Deleting temporary file " << name);
        const TlxPathname path = m_dbPath.withFileName(name);
        if (const auto removed = removeFile(path); !removed) {
            DISC_LOG(1, "Unable to delete " << path);
            DISC_LOG(1, "The cause: " << describeError(removed.error()));
        }
    }
    return true;
}

// Compat(query-type-not-kept): stores have no room for the query type, so it selects nothing.
DiscoveryIterator* DiscoveryDBCreator::getIterator(DiscoveryQuery) const
{
    DISC_TRACE("DiscoveryDBCreator::getIterator");
    if (!TLX_ASSERT(m_init))
        return nullptr;
    return new DBDiscoveryIterator(m_dbPath.c_str());
}

Discovery* DiscoveryDBCreator::newDiscovery(DiscoveryQuery query)
{
    DISC_TRACE("DiscoveryDBCreator::newDiscovery");
    if (!TLX_ASSERT(m_init))
        return nullptr;
    return new DBDiscovery(m_dbPath, new DBCollectionData(m_dbPath.withFileName(PLACEHOLDER)),
                           query);
}

Discovery* DiscoveryDBCreator::getDiscovery(const char* fileName)
{
    Lookup lookup;
    return openStored(fileName, lookup);
}

Discovery* DiscoveryDBCreator::openStored(const char* fileName, Lookup& lookup)
{
    DISC_TRACE("DiscoveryDBCreator::getDiscovery");
    if (!TLX_ASSERT(m_init))
        return nullptr;
    constexpr std::size_t SUFFIX = 3; // "xml" and "dat" have the same length
    const std::string name = fileName ? fileName : "";
    if (!TLX_ASSERT(name.size() > SUFFIX))
        return nullptr;
    const TlxPathname path = m_dbPath.withFileName(name);

    AutoDereference<DBDiscovery> discovery;
    {
        auto file = openRecordFile(path, O_RDWR, LockLevel::Read, lookup.wait);
        if (!file) {
            const bool isMissing = file.error().step == LockFailure::OPENING &&
                                   file.error().error == std::errc::no_such_file_or_directory;
            if (lookup.logsMissing || !isMissing)
                logFailure(file.error(), path);
            lookup.hasTimedOut = file.error().step == LockFailure::LOCKING &&
                                 file.error().error == std::errc::timed_out;
            return nullptr;
        }
        auto* data = new DBCollectionData(
            m_dbPath.withFileName(name.substr(0, name.size() - SUFFIX) + "dat"));
        discovery.reset(new DBDiscovery(std::move(file->lock), path, data, DQ_DISCOVERY_DATA));
        if (!discovery->loadFile(file->status)) {
            DISC_LOG_AS(LOG_LEVEL_FAILURE, noticeIf(mayBeNew(file->status)),
                        "Unable to load " << path);
            return nullptr;
        }
    }
    if (!isExpired(discovery.get()))
        return discovery.release();

    DISC_NOTICE(path << " has expired");
    switch (discovery->expire()) {
    case 0:
        break;
    case 1:
        DISC_NOTICE(path << " was modified during the expire and should not be expired");
        break;
    case 2:
        DISC_LOG_AS(LOG_LEVEL_FAILURE, noticeIf(discovery->isInUse()),
                    path << " could not be expired");
        break;
    default:
        TLX_SHOULD_NOT_GET_HERE();
    }
    return nullptr;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
