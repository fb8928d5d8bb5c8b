#pragma once
// Discoveries whose collection data is a document of the test's own, and what the researcher makes
// of it.

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Researcher.h"
#include "support/ListedDiscoveries.h"

namespace QmTest {

/// The items of one discovery with the data, which becomes owned.
inline Tlx::AutoDereference<Disc::CollectionItemIterator> research(Disc::CollectionData* data)
{
    const Tlx::AutoDereference<ListedDiscoveries> discoveries(new ListedDiscoveries);
    discoveries->add(data);
    const Tlx::AutoDereference<Disc::AuthSubIterator> all(
        new Disc::AuthSubIterator(discoveries.get()));
    return Tlx::AutoDereference<Disc::CollectionItemIterator>(
        all->getNextCollectionItemIterator(nullptr));
}

/// What was read of a document.
struct ReadItems
{
    bool parsed = false;
    std::vector<Tlx::AutoDereference<Disc::CollectionItem>> items;

    /// Item i, written; "?" when there is none.
    std::string written(std::size_t i, Tlx::XmlStr::Encoding encoding = Tlx::XmlStr::XE_UTF8) const
    {
        return i < items.size() ? QmTest::written(*items[i], encoding) : "?";
    }
    /// All of them.
    std::vector<std::string> all() const
    {
        std::vector<std::string> texts;
        for (std::size_t i = 0; i < items.size(); ++i)
            texts.push_back(written(i));
        return texts;
    }
    const Disc::DiscoveredItem* discovered(std::size_t i) const
    {
        return i < items.size() ? dynamic_cast<const Disc::DiscoveredItem*>(items[i].get())
                                : nullptr;
    }
};

inline ReadItems readItems(Disc::CollectionData* data)
{
    ReadItems result;
    const auto iterator = research(data);
    if (!iterator)
        return result;
    result.parsed = iterator->isParsed();
    while (Disc::CollectionItem* next = iterator->getNextCollectionItem())
        result.items.emplace_back(next);
    return result;
}

inline ReadItems readItems(const std::string& document)
{
    return readItems(new MemoryData(document));
}

} // namespace QmTest
