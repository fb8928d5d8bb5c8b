#include "RemoteWriter_i.h"

#include <mutex>
#include <set>

#include <tlx/Orb.h>

#include "DiscLog.h"
#include "DiscoveryRepository.h"
#include "ServiceCounters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

namespace {

constexpr const char* LOG_SOURCE = "DiscoveryService_i";

/// The activated writers that no client has closed yet.
struct OpenWriters
{
    std::mutex mutex;
    std::set<RemoteWriter_i*> writers;
};

OpenWriters& openWriters()
{
    static OpenWriters instance;
    return instance;
}

} // namespace

RemoteWriter_i::RemoteWriter_i(const Remote::Discovery& discovery)
    : m_subject(discovery.subject.in()), m_authority(discovery.authority.in()),
      m_authType(discovery.authType), m_colType(discovery.attributes.colType),
      m_colStorage(discovery.attributes.colStorage),
      m_priority(static_cast<unsigned int>(discovery.attributes.priority)),
      m_timeToLive(discovery.attributes.timeToLive),
      m_discoveryTime(discovery.attributes.discoveryTime), m_queryType(discovery.queryType)
{
}

RemoteWriter_i::~RemoteWriter_i() = default;

void RemoteWriter_i::setObjectReference(CORBA::Object_ptr reference)
{
    m_objRef = reference;
    const std::lock_guard guard(openWriters().mutex);
    openWriters().writers.insert(this);
}

void RemoteWriter_i::abandonAll()
{
    std::set<RemoteWriter_i*> writers;
    {
        const std::lock_guard guard(openWriters().mutex);
        writers.swap(openWriters().writers);
    }
    for (RemoteWriter_i* writer : writers)
        writer->_remove_ref();
}

DiscoveryRepository* RemoteWriter_i::getDiscoveryRepository() const
{
    return Tlx::DiscoverySvc::getDiscoveryRepository();
}

DiscoveryResult RemoteWriter_i::open()
{
    DISC_TRACE("RemoteWriter_i::open");
    const Subject subject(m_subject.utf8());
    const Authority authority(m_authority.utf8(), m_authType);
    const CollectionAttributes attributes(
        m_colType, m_colStorage, TlxObjTime::fromUnsignedSeconds(m_discoveryTime),
        TlxObjTime::fromUnsignedSeconds(m_timeToLive), m_priority);
    getDiscoveryRepository()->newDiscovery(m_discovery, m_queryType, subject, authority,
                                           attributes);
    if (!TLX_ASSERT_AS(m_discovery, "NULL != m_discovery"))
        return {DS_OPEN_FAILED, 0};
    return {m_discovery->open(OM_UPDATE, "").discStatus, 0};
}

CORBA::Boolean RemoteWriter_i::put(const CollectionDataSeq& data)
{
    return servantOperation("RemoteWriter_i::put", [&]() -> CORBA::Boolean {
        DISC_TRACE("RemoteWriter_i::put");
        if (!TLX_ASSERT_AS(m_discovery, "NULL != m_discovery"))
            return false;
        const CollectionData* collection = m_discovery->getCollectionData();
        if (!collection || !collection->writeCollection(data.length(), data.get_buffer()))
            return false;
        countService(ServiceCounter::BYTES_WRITTEN, data.length());
        return true;
    });
}

DiscoveryResult RemoteWriter_i::close()
{
    return servantOperation("RemoteWriter_i::close", [this]() -> DiscoveryResult {
        DISC_TRACE("RemoteWriter_i::close");
        endRequests();
        // Called directly, a second close finds no record.
        if (!TLX_ASSERT_AS(m_discovery, "NULL != m_discovery") && m_closed)
            return {DS_OPEN_FAILED, 0};
        m_closed = true;
        DiscoveryResult result{DS_OPEN_FAILED, 0};
        if (m_discovery)
            result = m_discovery->persist();
        m_discovery.reset(); // releases the record's lock
        if (isSuccess(result))
            countService(ServiceCounter::RECORDS_STORED);
        if (Orb* orb = getDiscoveryRepository()->getOrb())
            orb->destroyObjectRef(m_objRef.in(), PortableServer::POA::_nil());
        m_objRef = CORBA::Object::_nil();
        {
            const std::lock_guard guard(openWriters().mutex);
            openWriters().writers.erase(this);
        }
        _remove_ref();
        return result;
    });
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
