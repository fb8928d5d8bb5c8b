#include "CollectionDataIterator_i.h"

#include <algorithm>

#include "DiscLog.h"
#include "DiscMem.h"
#include "DiscoveryRepository.h"
#include "OpenObjects.h"
#include "PageBounds.h"
#include "ServiceCounters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

namespace {
constexpr const char* LOG_SOURCE = "DiscoveryService_i";
} // namespace

CollectionDataIterator_i::CollectionDataIterator_i(
    const AutoDereference<Tlx::DiscoverySvc::Discovery>& discovery)
    : m_discovery(discovery), m_largestPage(largestPage())
{
    (void)TLX_ASSERT(m_pageSize > 0);
}

bool CollectionDataIterator_i::open(const char* filter)
{
    DISC_TRACE("CollectionDataIterator_i::open");
    CollectionData* data = m_discovery ? m_discovery->getCollectionData() : nullptr;
    if (data && data->open(OM_READ, filter))
        return true;
    DISC_WARN("Failed to open collection");
    return false;
}

CollectionDataSeq* CollectionDataIterator_i::getNextPage()
{
    return servantOperation("CollectionDataIterator_i::getNextPage", [this] {
        DISC_TRACE("CollectionDataIterator_i::getNextPage");
        const Turn turn(*this);
        const CollectionData* data = m_discovery ? m_discovery->getCollectionData() : nullptr;
        if (!TLX_ASSERT_AS(data, "NULL != m_discovery"))
            return new CollectionDataSeq;
        const auto size = static_cast<CORBA::ULong>(
            std::clamp<std::int64_t>(m_pageSize, 0, static_cast<std::int64_t>(m_largestPage)));
        if (size == 0)
            return new CollectionDataSeq;
        CORBA::Octet* buffer = CollectionDataSeq::allocbuf(size);
        CollectionDataSeq_var page = new CollectionDataSeq(size, size, buffer, true);
        std::size_t count = data->readCollection(size, buffer);
        // Compat(page-failed-read): peers expect an empty page after a failed read, which returns a
        // count above the size.
        if (count > size) {
            DISC_WARN("Failed to read from CollectionData");
            count = 0;
        }
        page->length(static_cast<CORBA::ULong>(count));
        countService(ServiceCounter::BYTES_READ, count);
        return page._retn();
    });
}

CORBA::Long CollectionDataIterator_i::pageSize()
{
    DISC_TRACE("CollectionDataIterator_i::pageSize");
    const Turn turn(*this);
    return m_pageSize;
}

void CollectionDataIterator_i::pageSize(CORBA::Long size)
{
    DISC_TRACE("CollectionDataIterator_i::pageSize");
    const Turn turn(*this);
    m_pageSize = size;
}

void CollectionDataIterator_i::release()
{
    servantOperation("CollectionDataIterator_i::release", [this] {
        DISC_TRACE("CollectionDataIterator_i::release");
        const Turn turn(*this);
        DISC_LOG(4, "Releasing collection data iterator");
        endRequests();
        if (Orb* orb = getDiscoveryRepository()->getOrb())
            removeFromEvictor(m_objectId, *orb);
        m_discovery.reset();
        if (m_objectId.operator->())
            openObjects().end(m_objectId.in());
    });
}

std::size_t CollectionDataIterator_i::heldBytes() const
{
    const auto* const pulled = dynamic_cast<const MemCollectionData*>(
        m_discovery ? m_discovery->getCollectionData() : nullptr);
    return pulled ? pulled->heldBytes() : 0;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
