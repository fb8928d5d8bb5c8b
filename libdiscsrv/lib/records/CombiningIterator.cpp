#include "CombiningIterator.h"

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../CombiningIterator";
} // namespace

CombiningIterator::CombiningIterator(AuthorityType type, std::string authority, std::string subject,
                                     std::vector<AutoDereference<DiscoveryIterator>>& iterators)
    : DiscoveryIterator(type, std::move(authority), std::move(subject))
{
    for (const auto& iterator : iterators)
        if (iterator)
            m_iterators.push_back(iterator);
    for (const auto& iterator : m_iterators)
        m_listings.emplace_back(*iterator);
}

CombiningIterator::~CombiningIterator() = default;

Discovery* CombiningIterator::getNext()
{
    DISC_TRACE("CombiningIterator::getNext");
    for (; m_current < m_iterators.size(); ++m_current)
        if (Discovery* discovery = m_iterators[m_current]->getNext())
            return discovery;
    return nullptr;
}

std::optional<ListedRecord> CombiningIterator::listNext()
{
    DISC_TRACE("CombiningIterator::getNext"); // the name that log readers know
    for (; m_current < m_listings.size(); ++m_current)
        if (auto listed = m_listings[m_current].next())
            return listed;
    return std::nullopt;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
