#include "DiscoveryIterator_i.h"

#include <cstdint>
#include <utility>
#include <vector>

#include <tlx/Hostname.h>

#include "DiscLog.h"
#include "DiscoveryRepository.h"
#include "NameBounds.h"
#include "OpenObjects.h"
#include "PageBounds.h"
#include "RemoteDB.h"
#include "RemoteExplorerPull.h"
#include "ServiceCounters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

namespace {

constexpr const char* LOG_SOURCE = "DiscoveryService_i";

/// What a row needs on the wire beside the text of its names: numbers, lengths, zero bytes and
/// padding, rounded up.
constexpr std::size_t ROW_BYTES = 128;

std::size_t bytesOf(const PageRow& row, const TlxString& host)
{
    return ROW_BYTES + row.subject.size() + row.authority.size() + row.service.size() + host.size();
}

void fill(Remote::Discovery& element, const PageRow& row, const TlxString& host)
{
    element.subject = CORBA::string_dup(row.subject.c_str());
    element.authority = CORBA::string_dup(row.authority.c_str());
    element.authType = row.type;
    element.sourceHost = CORBA::string_dup(host.c_str());
    element.sourceServiceName = CORBA::string_dup(row.service.c_str());
    // Compat(page-bare-records): peers get pages without query type and attributes. Values that are
    // left unset might not marshal, so set constants.
    element.queryType = DQ_UNDEFINED;
    element.attributes.colType = CT_CONFIGURATION;
    element.attributes.colStorage = CS_LOCALONLY;
    element.attributes.priority = 0;
    element.attributes.timeToLive = 0;
    element.attributes.discoveryTime = 0;
}

std::optional<PageRow> nextRow(RecordListing& listing, const std::string& service)
{
    auto listed = listing.next();
    if (!listed)
        return std::nullopt;
    const auto* remote = dynamic_cast<const RemoteExplorerPull*>(listed->record.get());
    const std::string from = remote ? remote->getServiceName().utf8() : std::string();
    return PageRow{std::move(listed->subject), std::move(listed->authority), listed->type,
                   from.empty() ? service : from};
}

} // namespace

DiscoveryIterator_i::DiscoveryIterator_i(Tlx::DiscoverySvc::DiscoveryIterator* iterator)
    : m_largestPage(largestPage())
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

        const std::string service = getDiscoveryRepository()->getOrbServiceName().utf8();
        std::vector<PageRow> rows;
        std::size_t bytes = 0;
        RecordListing listing(*m_discoveryIterator);
        // Compat(page-one-more): peers expect one record more than the page size. The comparison is
        // done in 64 bits because the page size may be the largest 32-bit number.
        while (static_cast<std::int64_t>(rows.size()) <= m_pageSize) {
            if (!m_next && !(m_next = nextRow(listing, service)))
                break;
            const std::size_t size = bytesOf(*m_next, m_hostName);
            if (size <= m_largestPage && bytes + size > m_largestPage)
                break; // it begins the next page
            if (size <= m_largestPage) {
                bytes += size;
                rows.push_back(std::move(*m_next));
            } else {
                DISC_WARN("A record of " << size << " bytes fits into no page and is left out, its "
                                         << "subject begins with \""
                                         << beginningOfName(m_next->subject) << "\"");
            }
            m_next.reset();
        }

        page->length(static_cast<CORBA::ULong>(rows.size()));
        for (CORBA::ULong i = 0; i < rows.size(); ++i)
            fill(page[i], rows[i], m_hostName);
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
        m_next.reset();
        if (m_objectId.operator->())
            openObjects().end(m_objectId.in());
    });
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
