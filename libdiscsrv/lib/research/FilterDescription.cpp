#include "FilterDescription.h"

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../FilterDescription";
} // namespace

void mergeDescriptions(TlxQuery& query, CollectionItemIterator& items)
{
    while (CollectionItem* next = items.getNextCollectionItem()) {
        const AutoDereference<CollectionItem> item(next);
        const auto* filter = dynamic_cast<const FilterItem*>(next);
        if (filter && filter->getQuery())
            query.merge(*filter->getQuery());
    }
}

// Compat(filter-description-order): programs pass the authority first and the subject second. All
// other queries have the subject first.
FilterDescription::FilterDescription(const std::string& first, const std::string& second)
    : TlxQuery(0)
{
    DISC_TRACE("FilterDescription::FilterDescription");
    const AutoDereference<AuthSubIterator> all(
        getAuthSubIterator(DQ_FILTER_DATA, second, first, AT_ANYANDALL));
    while (CollectionItemIterator* next =
               all ? all->getNextCollectionItemIterator(nullptr) : nullptr) {
        const AutoDereference<CollectionItemIterator> items(next);
        mergeDescriptions(*this, *items);
    }
}

FilterDescription::~FilterDescription() = default;

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
