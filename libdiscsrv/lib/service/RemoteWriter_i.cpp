#include "RemoteWriter_i.h"

#include "DiscLog.h"
#include "DiscoveryRepository.h"
#include "OpenObjects.h"
#include "ServiceCounters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

namespace {

constexpr const char* LOG_SOURCE = "DiscoveryService_i";

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

std::string RemoteWriter_i::describe() const
{
    return "a writer of subject " + m_subject.utf8() + " & authority " + m_authority.utf8();
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
        const Turn turn(*this);
        if (m_closed)
            throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
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
        const Turn turn(*this);
        endRequests();
        const bool registered = m_objectId.operator->();
        // The second close of a writer, or the first one of a writer that was given up just now.
        if (m_closed || (registered && !openObjects().beginEnd(m_objectId.in())))
            throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
        m_closed = true;
        DiscoveryResult result{DS_OPEN_FAILED, 0};
        if (TLX_ASSERT_AS(m_discovery, "NULL != m_discovery"))
            result = m_discovery->persist();
        m_discovery.reset(); // releases the record's lock
        if (isSuccess(result))
            countService(ServiceCounter::RECORDS_STORED);
        if (registered)
            openObjects().end(m_objectId.in());
        return result;
    });
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
