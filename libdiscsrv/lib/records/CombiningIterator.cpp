#include "CombiningIterator.h"

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../CombiningIterator";
} // namespace

CombiningIterator::CombiningIterator(AuthorityType type, std::string authority, std::string subject,
                                     std::vector<AutoDereference<DiscoveryIterator>>& iterators)
    : DiscoveryIterator(type, std::move(authority), std::move(subject)), m_iterators(iterators)
{
}

CombiningIterator::~CombiningIterator() = default;

Discovery* CombiningIterator::getNext()
{
    DISC_TRACE("CombiningIterator::getNext");
    for (; m_current < m_iterators.size(); ++m_current) {
        DiscoveryIterator* iterator = m_iterators[m_current].get();
        if (Discovery* discovery = iterator ? iterator->getNext() : nullptr)
            return discovery;
    }
    return nullptr;
}

std::optional<ListedRecord> CombiningIterator::listNext()
{
    DISC_TRACE("CombiningIterator::getNext"); // the name that log readers know
    for (; m_current < m_iterators.size(); ++m_current) {
        DiscoveryIterator* iterator = m_iterators[m_current].get();
        if (!iterator)
            continue;
        if (auto listed = DiscoverySvc::listNext(*iterator))
            return listed;
    }
    return std::nullopt;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
