#include "DiscoveryIterator_i.h"

#include <cstdint>
#include <utility>
#include <vector>

#include <tlx/Hostname.h>

#include "DiscLog.h"
#include "DiscoveryRepository.h"
#include "OpenObjects.h"
#include "RemoteDB.h"
#include "RemoteExplorerPull.h"
#include "ServiceCounters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

namespace {

constexpr const char* LOG_SOURCE = "DiscoveryService_i";

/// The part of a record that a page shows.
struct Row
{
    std::string subject;
    std::string authority;
    AuthorityType type;
    /// The service of a RemoteExplorerPull; empty for any other record.
    std::string service;

    /// An estimate of its size on the wire, including the constant members.
    std::size_t wireBytes() const { return subject.size() + authority.size() + 128; }
};

void fill(Remote::Discovery& element, const Row& row, const TlxString& host,
          const TlxString& service)
{
    element.subject = CORBA::string_dup(row.subject.c_str());
    element.authority = CORBA::string_dup(row.authority.c_str());
    element.authType = row.type;
    element.sourceHost = CORBA::string_dup(host.c_str());
    element.sourceServiceName =
        CORBA::string_dup(row.service.empty() ? service.c_str() : row.service.c_str());
    // Compat(page-bare-records): peers get pages without query type and attributes. Values that are
    // left unset might not marshal, so set constants.
    element.queryType = DQ_UNDEFINED;
    element.attributes.colType = CT_CONFIGURATION;
    element.attributes.colStorage = CS_LOCALONLY;
    element.attributes.priority = 0;
    element.attributes.timeToLive = 0;
    element.attributes.discoveryTime = 0;
}

} // namespace

DiscoveryIterator_i::DiscoveryIterator_i(Tlx::DiscoverySvc::DiscoveryIterator* iterator)
{
    m_discoveryIterator.refObject(iterator);
    m_hostName = TlxHostname::local().text();
}

std::size_t DiscoveryIterator_i::heldBytes() const
{
    const auto* const fetched =
        dynamic_cast<const RemoteDiscoveryIterator*>(m_discoveryIterator.get());
    return fetched ? fetched->heldBytes() : 0;
}

DiscoverySeq* DiscoveryIterator_i::getNextPage()
{
    return servantOperation("DiscoveryIterator_i::getNextPage", [this] {
        DISC_TRACE("DiscoveryIterator_i::getNextPage");
        const Turn turn(*this);
        DiscoverySeq_var page = new DiscoverySeq;
        if (!TLX_ASSERT_AS(m_discoveryIterator, "NULL != m_discoveryIterator"))
            return page._retn();

        std::vector<Row> rows;
        std::size_t bytes = 0;
        RecordListing listing(*m_discoveryIterator);
        // Compat(page-one-more): peers expect one record more than the page size. The comparison is
        // done in 64 bits because the page size may be the largest 32-bit number.
        while (static_cast<std::int64_t>(rows.size()) <= m_pageSize && bytes < MAX_PAGE_BYTES) {
            auto listed = listing.next();
            if (!listed)
                break;
            const auto* remote = dynamic_cast<const RemoteExplorerPull*>(listed->record.get());
            rows.push_back({std::move(listed->subject), std::move(listed->authority), listed->type,
                            remote ? remote->getServiceName().utf8() : std::string()});
            bytes += rows.back().wireBytes();
        }

        const TlxString service = getDiscoveryRepository()->getOrbServiceName();
        page->length(static_cast<CORBA::ULong>(rows.size()));
        for (CORBA::ULong i = 0; i < rows.size(); ++i)
            fill(page[i], rows[i], m_hostName, service);
        countService(ServiceCounter::RECORDS_RETURNED, rows.size());
        return page._retn();
    });
}

CORBA::Long DiscoveryIterator_i::pageSize()
{
    DISC_TRACE("DiscoveryIterator_i::pageSize");
    const Turn turn(*this);
    return m_pageSize;
}

void DiscoveryIterator_i::pageSize(CORBA::Long size)
{
    DISC_TRACE("DiscoveryIterator_i::pageSize");
    const Turn turn(*this);
    m_pageSize = size;
}

void DiscoveryIterator_i::release()
{
    servantOperation("DiscoveryIterator_i::release", [this] {
        DISC_TRACE("DiscoveryIterator_i::release");
        const Turn turn(*this);
        DISC_LOG(4, "releasing discovery iterator");
        endRequests();
        if (Orb* orb = getDiscoveryRepository()->getOrb())
            removeFromEvictor(m_objectId, *orb);
        m_discoveryIterator.reset();
        if (m_objectId.operator->())
            openObjects().end(m_objectId.in());
    });
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
