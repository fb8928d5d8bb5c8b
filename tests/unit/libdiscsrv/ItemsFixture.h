#pragma once
// Documents of the test, and the items that the researcher reads from them.

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AuthSubIterator.h"
#include "support/Capture.h"
#include "support/ListedDiscoveries.h"

namespace QmTest {

/// The items of one discovery. Takes ownership of the data.
inline Tlx::AutoDereference<Disc::CollectionItemIterator> research(Disc::CollectionData* data)
{
    const Tlx::AutoDereference<ListedDiscoveries> discoveries(new ListedDiscoveries);
    discoveries->add(data);
    const Tlx::AutoDereference<Disc::AuthSubIterator> all(
        new Disc::AuthSubIterator(discoveries.get()));
    return Tlx::AutoDereference<Disc::CollectionItemIterator>(
        all->getNextCollectionItemIterator(nullptr));
}

/// The items of the first discovery that matches. Expects one.
inline Tlx::AutoDereference<Disc::CollectionItemIterator>
firstItems(Disc::AuthSubIterator* all, const Disc::FilterParameters* filter = nullptr)
{
    EXPECT_NE(all, nullptr);
    Tlx::AutoDereference<Disc::CollectionItemIterator> items(
        all ? all->getNextCollectionItemIterator(filter) : nullptr);
    EXPECT_TRUE(items);
    return items;
}

/// The items of a document.
struct ReadItems
{
    bool parsed = false;
    std::vector<Tlx::AutoDereference<Disc::CollectionItem>> items;

    /// Item i as XML, "?" if it does not exist.
    std::string written(std::size_t i, Tlx::XmlStr::Encoding encoding = Tlx::XmlStr::XE_UTF8) const
    {
        return i < items.size() ? QmTest::written(*items[i], encoding) : "?";
    }
    /// All items as XML.
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

/// The log line about an unknown element.
constexpr const char* UNKNOWN = "Ignoring Unknown Tag";

inline std::string document(const std::string& items)
{
    return "<DiscoveredItems>" + items + "</DiscoveredItems>";
}

/// The items of a document. Expects no log line and no failed assertion.
inline ReadItems readSound(const std::string& text)
{
    const AssertionCapture assertions;
    const LogCapture log(Tlx::LOG_LEVEL_FAILURE);
    ReadItems items = readItems(text);
    EXPECT_TRUE(items.parsed) << text;
    EXPECT_EQ(log.texts(1), Lines()) << text;
    EXPECT_EQ(assertions.texts(), Lines()) << text;
    return items;
}

/// The text of an item's explorer data. "?" for an item without data.
inline std::string dataOf(const ReadItems& items, std::size_t i = 0)
{
    const Disc::DiscoveredItem* item = items.discovered(i);
    const Tlx::AutoDereference<Disc::ExplorerData> data(item ? item->getExplorerData() : nullptr);
    if (!data)
        return "?";
    std::ostringstream out;
    data->writeXml(out, Tlx::XmlStr::XE_UTF8);
    return out.str();
}

/// A document of one item, with this data of the explorer "e".
inline std::string block(const std::string& inner)
{
    return document("<DISCOVERED><ExplorerData Name='e'>" + inner + "</ExplorerData></DISCOVERED>");
}

inline const std::string TWO_ITEMS =
    "<DiscoveredItems><DISCOVERED Name='a'/><DISCOVERED Name='b'/></DiscoveredItems>";

/// The names of the items that are left, in order.
inline Lines names(Disc::CollectionItemIterator& items)
{
    Lines result;
    while (Disc::CollectionItem* next = items.getNextCollectionItem()) {
        const Tlx::AutoDereference<Disc::CollectionItem> item(next);
        const auto* discovered = dynamic_cast<const Disc::DiscoveredItem*>(next);
        result.push_back(discovered ? discovered->getName() : "?");
    }
    return result;
}

} // namespace QmTest
