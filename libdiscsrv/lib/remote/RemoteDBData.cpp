#include <algorithm>
#include <cstring>

#include <tlx/HostConfig.h>
#include <tlx/Servant.h>

#include "DiscLog.h"
#include "FetchTimeLimit.h"
#include "InFlight.h"
#include "OutOfReach.h"
#include "PeerLink.h"
#include "RemoteDB.h"
#include "ServiceConnection.h"
#include "ServiceCounters.h"
#include "ServiceKeys.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../RemoteDB";
constexpr const char* CANNOT_CONNECT = "Failed to connect to discovery service";

/// Releases another host's iterator at the end of its own life. A failure does no harm: that host's
/// evictor removes idle iterators.
class AutoReleaseIterator
{
  public:
    explicit AutoReleaseIterator(Remote::CollectionDataIterator_ptr iterator)
        : m_iterator(Remote::CollectionDataIterator::_duplicate(iterator))
    {
    }
    ~AutoReleaseIterator()
    {
        try {
            if (!CORBA::is_nil(m_iterator))
                m_iterator->release();
        } catch (const CORBA::Exception&) {
            // See above.
        }
    }
    void leave() { m_iterator = Remote::CollectionDataIterator::_nil(); }
    AutoReleaseIterator(const AutoReleaseIterator&) = delete;
    AutoReleaseIterator& operator=(const AutoReleaseIterator&) = delete;

  private:
    Remote::CollectionDataIterator_var m_iterator;
};

CORBA::ULongLong secondsOf(const TlxObjTime& time)
{
    return static_cast<CORBA::ULongLong>(std::max<std::int64_t>(time.seconds(), 0));
}

} // namespace

RemoteCollectionData::RemoteCollectionData(DiscoveryQuery query) : m_query(query)
{
    initalizeDR();
}

RemoteCollectionData::RemoteCollectionData(const Remote::Discovery& discovery)
    : m_discovery(new Remote::Discovery(discovery)), m_query(discovery.queryType)
{
}

RemoteCollectionData::~RemoteCollectionData()
{
    dropWriter();
}

void RemoteCollectionData::initalizeDR()
{
    m_result = {DS_OPEN_FAILED, 0};
}

void RemoteCollectionData::dropWriter() const
{
    if (CORBA::is_nil(m_writer))
        return;
    countService(ServiceCounter::WRITERS_LEFT);
    m_writer = Remote::RemoteWriter::_nil();
}

void RemoteCollectionData::dropCache()
{
    m_cached = false;
    m_cache = {};
    m_length = 0;
    m_position = 0;
}

void RemoteCollectionData::getMasterServerName(TlxHostname& out) const
{
    getPeerLink().getMasterServerName(out);
}

Remote::DiscoveryService_ptr RemoteCollectionData::connect() const
{
    DISC_TRACE("RemoteCollectionData::connect");
    TlxHostname master;
    getMasterServerName(master);
    return getPeerLink().connect(master, DISCOVERY_SERVICE);
}

bool RemoteCollectionData::open(OpenMode mode, const char* arg)
{
    DISC_TRACE("RemoteCollectionData::open");
    setOpenFailure("");
    switch (mode) {
    case OM_READ:
        return openRead(arg);
    case OM_UPDATE:
        return openWrite();
    default:
        TLX_SHOULD_NOT_GET_HERE();
        return false;
    }
}

/// Logs why the payload cannot be opened, and keeps the text for the caller. Returns false.
bool RemoteCollectionData::failOpen(const std::string& why)
{
    DISC_WARN(why);
    setOpenFailure(why);
    return false;
}

bool RemoteCollectionData::openWrite()
{
    // Compat(log-remote-write): log readers know this spelling.
    DISC_TRACE("RemotecollectionData::openWrite");
    dropWriter();
    m_spoilt = false;
    const InFlight inFlight(getPeerLink().writesBeingOpened());
    if (!inFlight.isAdmitted())
        return failOpen(std::to_string(PeerLink::MAX_WRITES_BEING_OPENED) +
                        " writes are being opened on the master already");
    try {
        const Remote::DiscoveryService_var master = connect();
        if (CORBA::is_nil(master))
            return failOpen(CANNOT_CONNECT);
        bool ready = TLX_ASSERT_AS(m_subject, "NULL != m_subject");
        ready = TLX_ASSERT_AS(m_authority, "NULL != m_authority") && ready;
        if (!ready)
            return false;
        Remote::Discovery record;
        record.queryType = m_query;
        record.subject = m_subject->getSubject().c_str();
        record.authority = m_authority->getName().c_str();
        record.authType = m_authority->getType();
        record.attributes = {CT_CONFIGURATION, CS_LOCALONLY, 0, 0, 0};
        if (m_attributes)
            record.attributes = {m_attributes->getType(), m_attributes->getStorage(),
                                 static_cast<CORBA::Long>(m_attributes->getPriority()),
                                 secondsOf(m_attributes->getTimeToLive()),
                                 secondsOf(m_attributes->getDiscoveryTime())};
        record.sourceHost = TlxHostname::local().c_str();
        record.sourceServiceName = getPeerLink().ownServiceName().c_str();
        m_result = master->putCollection(record, m_writer.out());
    } catch (const CORBA::Exception& e) {
        return failOpen("Caught CORBA Exception while saving collection data: " +
                        describeException(e));
    }
    if (!isSuccess(m_result)) {
        m_writer = Remote::RemoteWriter::_nil(); // a peer should send none
        return failOpen("Failed to open the collection data: " +
                        std::to_string(m_result.discStatus));
    }
    return true;
}

bool RemoteCollectionData::writeCollection(std::size_t length, const void* buffer) const
{
    DISC_TRACE("RemoteCollectionData::writeCollection");
    if (!TLX_ASSERT_AS(!CORBA::is_nil(m_writer), "NULL != m_writer"))
        return false;
    if (m_spoilt && length > 0) // do not wait for the network again
        return false;
    const auto* bytes = static_cast<const CORBA::Octet*>(buffer);
    try {
        while (length > 0) {
            if (getPeerLink().isShuttingDown()) {
                DISC_WARN("The service is shutting down, the write is given up");
                m_spoilt = true;
                return false;
            }
            const std::size_t count = std::min(length, CHUNK_BYTES);
            Remote::CollectionDataSeq chunk;
            chunk.length(static_cast<CORBA::ULong>(count));
            std::memcpy(chunk.get_buffer(), bytes, count);
            // Compat(writer-left-open): peers know only `put` and `close`. After a failed put the
            // writer stays open, because a close would store half a collection.
            if (!m_writer->put(chunk)) {
                DISC_WARN("Failed to write buffer");
                m_spoilt = true;
                return false;
            }
            bytes += count;
            length -= count;
        }
        return true;
    } catch (const CORBA::Exception& e) {
        DISC_WARN("Caught CORBA Exception during remote write: " << describeException(e));
        m_spoilt = true;
        return false;
    }
}

DiscoveryResult RemoteCollectionData::persist()
{
    // Compat(log-remote-write): log readers find the end of a write under this name.
    DISC_TRACE("RemoteDiscovery::persist");
    if (!TLX_ASSERT_AS(!CORBA::is_nil(m_writer), "NULL != cd->m_writer"))
        return {DS_LOGIC_ERROR, 0};
    // Compat(writer-left-open): a close would store an incomplete collection.
    if (m_spoilt) {
        DISC_WARN("A collection that lost bytes on its way is not persisted");
        dropWriter();
        return {DS_COM_ERROR, 0};
    }
    try {
        const DiscoveryResult result = m_writer->close();
        m_writer = Remote::RemoteWriter::_nil();
        return result;
    } catch (const CORBA::Exception& e) {
        DISC_WARN("Caught CORBA Exception while persisting discoveries: " << describeException(e));
        dropWriter();
        return {DS_COM_ERROR, 0};
    }
}

bool RemoteCollectionData::openRead(const char* filter)
{
    DISC_TRACE("RemoteCollectionData::openRead");
    dropCache();
    if (!TLX_ASSERT_AS(m_discovery.operator->(), "0 != m_discovery.ptr()"))
        return false;
    try {
        TlxHostname source;
        source.setHostname(TlxString(m_discovery->sourceHost.in()));
        const Remote::DiscoveryService_var service =
            getPeerLink().connect(source, m_discovery->sourceServiceName.in());
        if (CORBA::is_nil(service))
            return failOpen(CANNOT_CONNECT);
        Remote::CollectionDataIterator_var iterator;
        const DiscoveryStatus status =
            service->getCollectionData(m_discovery.in(), filter ? filter : "", iterator.out());
        AutoReleaseIterator released(iterator);
        if (status != DS_SUCCESS)
            return failOpen("Failed to get collection data: " + std::to_string(status));
        if (CORBA::is_nil(iterator))
            return failOpen("The service answered with success and no iterator");
        try {
            m_cached = fetch(iterator);
            if (!m_cached && getPeerLink().isShuttingDown())
                released.leave();
        } catch (const CORBA::Exception& e) {
            if (isOutOfReach(e))
                released.leave();
            throw;
        }
    } catch (const CORBA::Exception& e) {
        failOpen("Caught CORBA Exception while reading collection data: " + describeException(e));
    }
    if (!m_cached)
        dropCache();
    return m_cached;
}

/// Fetches all pages. Returns false on failure.
// Compat(page-size-unset): peers expect that a reading service leaves the page size at its default.
bool RemoteCollectionData::fetch(Remote::CollectionDataIterator_ptr iterator)
{
    const std::uint64_t bound = HostConfig::instance().number(ConfigKey::REMOTE_MAX_BYTES);
    m_cache.resize(FIRST_CACHE_BYTES);
    const FetchTimeLimit limit;
    for (;;) {
        if (limit.isOver())
            return failOpen("A collection of another host " + limit.text());
        if (getPeerLink().isShuttingDown())
            return failOpen("The service is shutting down, the read is given up");
        const Remote::CollectionDataSeq_var page = iterator->getNextPage();
        if (page->length() == 0)
            break;
        if (static_cast<std::uint64_t>(m_length) + page->length() > bound)
            return failOpen("A collection of another host may have " + std::to_string(bound) +
                            " bytes (" + ConfigKey::REMOTE_MAX_BYTES.name() +
                            "), this one has more");
        if (!append(page))
            return false;
    }
    // Compat(fetch-empty): log readers rely on this: a collection without bytes is a failure.
    if (m_length == 0)
        return failOpen("Collection data returned has no data");
    return true;
}

bool RemoteCollectionData::append(const Remote::CollectionDataSeq& page)
{
    const std::size_t needed = static_cast<std::size_t>(m_length) + page.length();
    // Compat(fetch-doubled-once): peers and log readers rely on this: the cache doubles at most
    // once for each page, and a page that still does not fit fails the read.
    if (needed > m_cache.size())
        m_cache.resize(m_cache.size() * 2);
    if (needed > m_cache.size())
        return failOpen("A page of " + std::to_string(page.length()) +
                        " bytes does not fit in a cache of " + std::to_string(m_cache.size()) +
                        " with " + std::to_string(m_length) + " in use");
    std::memcpy(m_cache.data() + m_length, page.get_buffer(), page.length());
    m_length += static_cast<std::int32_t>(page.length());
    return true;
}

std::size_t RemoteCollectionData::readCollection(std::size_t length, void* buffer) const
{
    DISC_TRACE("RemoteCollectionData::readCollection");
    if (!TLX_ASSERT(m_cached))
        return 0;
    const std::size_t count = std::min(length, static_cast<std::size_t>(m_length - m_position));
    std::memcpy(buffer, m_cache.data() + m_position, count);
    m_position += static_cast<std::int64_t>(count);
    return count;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
