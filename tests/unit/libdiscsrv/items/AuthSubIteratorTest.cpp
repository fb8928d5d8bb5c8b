// Walking over discoveries and their items.

#include "AuthSubIterator.h"

#include <gtest/gtest.h>

#include "FilterParameters.h"
#include "ItemsFixture.h"
#include "ServiceFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::Lines;
using QmTest::ListedDiscoveries;
using QmTest::LogCapture;
using QmTest::MemoryData;
using QmTest::names;
using QmTest::PlainDiscovery;
using QmTest::ReadItems;
using QmTest::readItems;
using QmTest::research;
using QmTest::TWO_ITEMS;

// The items of one discovery.

TEST(CollectionItemIteratorTest, AnEmptyListYieldsNullAtOnceAndAgain)
{
    const AutoDereference<CollectionItemIterator> items(
        new CollectionItemIterator(nullptr, nullptr, new CollectionItemList, true));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(items->getNextCollectionItem(), nullptr);
    EXPECT_EQ(items->getAuthority(), nullptr);
    EXPECT_EQ(items->getSubject(), nullptr);
}

TEST(CollectionItemIteratorTest, EachItemIsANewReferenceAndTheEndStays)
{
    auto* const list = new CollectionItemList;
    const AutoDereference<CollectionItem> kept(new DiscoveredItem("a"));
    list->push_back(kept);
    {
        const AutoDereference<CollectionItemIterator> items(
            new CollectionItemIterator(nullptr, nullptr, list, true));
        const AutoDereference<CollectionItem> got(items->getNextCollectionItem());
        EXPECT_EQ(got.get(), kept.get());
        EXPECT_EQ(kept->referenceCount(), 3u);
        EXPECT_EQ(items->getNextCollectionItem(), nullptr);
        EXPECT_EQ(items->getNextCollectionItem(), nullptr);
    }
    EXPECT_EQ(kept->referenceCount(), 1u);
}

TEST(CollectionItemIteratorTest, ACopyIsDeepAndGoesOnWhereTheOriginalStands)
{
    auto* const list = new CollectionItemList;
    for (const char* name : {"a", "b", "c"})
        list->emplace_back(new DiscoveredItem(name));
    AutoDereference<CollectionItemIterator> original(new CollectionItemIterator(
        new Authority("host1", AT_QMKCLIENT), new Subject("subject1"), list, false));
    const AutoDereference<CollectionItem> first(original->getNextCollectionItem());
    const AutoDereference<CollectionItemIterator> copy(new CollectionItemIterator(*original));
    EXPECT_NE(copy->getAuthority(), original->getAuthority());
    EXPECT_NE(copy->getSubject(), original->getSubject());
    original.reset();
    EXPECT_EQ(copy->referenceCount(), 1u);
    EXPECT_EQ(copy->getAuthority()->getName(), TlxString("host1"));
    EXPECT_EQ(copy->getAuthority()->getType(), AT_QMKCLIENT);
    EXPECT_EQ(copy->getSubject()->getSubject(), TlxString("subject1"));
    EXPECT_FALSE(copy->isParsed());
    EXPECT_EQ(names(*copy), (Lines{"b", "c"}));
}

TEST(CollectionItemIteratorTest, ACopyOfOneWithoutAuthorityAndSubjectHasNone)
{
    const AutoDereference<CollectionItemIterator> original(
        new CollectionItemIterator(nullptr, nullptr, new CollectionItemList, true));
    const AutoDereference<CollectionItemIterator> copy(new CollectionItemIterator(*original));
    EXPECT_EQ(copy->getAuthority(), nullptr);
    EXPECT_EQ(copy->getSubject(), nullptr);
    EXPECT_TRUE(copy->isParsed());
}

// A walk over discoveries.

TEST(AuthSubIteratorTest, EachDiscoveryYieldsItsItems)
{
    const AutoDereference<ListedDiscoveries> discoveries(new ListedDiscoveries);
    discoveries->add(new MemoryData(TWO_ITEMS), "host1", "first");
    discoveries->add(new MemoryData("<DiscoveredItems/>"), "host2", "second");
    const LogCapture log(LOG_LEVEL_FAILURE);
    const AutoDereference<AuthSubIterator> all(new AuthSubIterator(discoveries.get()));
    EXPECT_EQ(discoveries->referenceCount(), 2u);

    const AutoDereference<CollectionItemIterator> first(
        all->getNextCollectionItemIterator(nullptr));
    ASSERT_TRUE(first);
    EXPECT_EQ(first->getAuthority()->getName(), TlxString("host1"));
    EXPECT_EQ(first->getAuthority()->getType(), AT_QMKCLIENT);
    EXPECT_EQ(first->getSubject()->getSubject(), TlxString("first"));
    EXPECT_TRUE(first->isParsed());
    EXPECT_EQ(names(*first), (Lines{"a", "b"}));

    const AutoDereference<CollectionItemIterator> second(
        all->getNextCollectionItemIterator(nullptr));
    ASSERT_TRUE(second);
    EXPECT_EQ(second->getAuthority()->getName(), TlxString("host2"));
    EXPECT_TRUE(second->isParsed());
    EXPECT_EQ(names(*second), Lines());

    EXPECT_EQ(all->getNextCollectionItemIterator(nullptr), nullptr);
    EXPECT_EQ(all->getNextCollectionItemIterator(nullptr), nullptr);
    EXPECT_EQ(log.lines().size(), 0u);
}

TEST(AuthSubIteratorTest, TheItemsOutliveTheDiscoveriesAndTheirIterator)
{
    const auto items = research(new MemoryData(TWO_ITEMS));
    ASSERT_TRUE(items);
    EXPECT_EQ(items->getAuthority()->getName(), TlxString("host1"));
    EXPECT_EQ(names(*items), (Lines{"a", "b"}));
}

TEST(AuthSubIteratorTest, WithoutDiscoveriesThereIsNothing)
{
    const AutoDereference<AuthSubIterator> none(new AuthSubIterator(nullptr));
    EXPECT_EQ(none->getNextCollectionItemIterator(nullptr), nullptr);
}

TEST(AuthSubIteratorTest, ADiscoveryWithoutAuthorityAndSubjectIsReadToo)
{
    const AutoDereference<ListedDiscoveries> discoveries(new ListedDiscoveries);
    discoveries->add(AutoDereference<Discovery>(new PlainDiscovery(new MemoryData(TWO_ITEMS))));
    const AutoDereference<AuthSubIterator> all(new AuthSubIterator(discoveries.get()));
    const AutoDereference<CollectionItemIterator> items(
        all->getNextCollectionItemIterator(nullptr));
    ASSERT_TRUE(items);
    EXPECT_EQ(items->getAuthority(), nullptr);
    EXPECT_EQ(items->getSubject(), nullptr);
    EXPECT_EQ(names(*items), (Lines{"a", "b"}));
}

TEST(AuthSubIteratorTest, DataThatIsNoXmlYieldsAnIteratorThatIsNotParsedAndNoItems)
{
    const LogCapture log;
    const auto items = research(new MemoryData("This is no XML."));
    ASSERT_TRUE(items);
    EXPECT_FALSE(items->isParsed());
    EXPECT_EQ(items->getNextCollectionItem(), nullptr);
    EXPECT_EQ(items->getAuthority()->getName(), TlxString("host1"));
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[0].text.starts_with("Failed to parse the document DiscoveredItems: line 1, "))
        << lines[0].text;
    ASSERT_TRUE(items->getFailure());
    EXPECT_EQ(items->getFailure()->problem, ResearchProblem::NOT_PARSED);
    EXPECT_EQ(items->getFailure()->cause, lines[0].text);
    EXPECT_EQ(items->getFailure()->subject, "subject1");
    EXPECT_EQ(items->getFailure()->authority, "host1");
    EXPECT_EQ(lines[1].text, "Failed to parse the discovery stream");
    EXPECT_EQ(lines[1].operation, "AuthSubIterator::parseDiscovery");
    EXPECT_EQ(lines[2].text, "Failed to parse discovery");
    EXPECT_EQ(lines[2].operation, "AuthSubIterator::getNextCollectionItemIterator");
    for (const auto& line : lines)
        EXPECT_EQ(line.level, 1);
}

TEST(AuthSubIteratorTest, ItemsThatWereCompleteBeforeTheFailureAreKept)
{
    const LogCapture log;
    const auto items = research(
        new MemoryData("<DiscoveredItems><DISCOVERED Name='a'/><DISCOVERED Name='b'></DISCOVERED>"
                       "<DISCOVERED Name='c'><StatusMsg Code='1'>cut o"));
    ASSERT_TRUE(items);
    EXPECT_FALSE(items->isParsed());
    EXPECT_EQ(names(*items), (Lines{"a", "b"}));
    EXPECT_EQ(log.texts(1).back(), "Failed to parse discovery");
}

TEST(AuthSubIteratorTest, OneBrokenDiscoveryDoesNotHideTheNext)
{
    const AutoDereference<ListedDiscoveries> discoveries(new ListedDiscoveries);
    discoveries->add(new MemoryData("<DiscoveredItems><DISCOVERED>"));
    discoveries->add(new MemoryData(TWO_ITEMS));
    const AutoDereference<AuthSubIterator> all(new AuthSubIterator(discoveries.get()));
    const LogCapture log;
    const AutoDereference<CollectionItemIterator> broken(
        all->getNextCollectionItemIterator(nullptr));
    const AutoDereference<CollectionItemIterator> whole(
        all->getNextCollectionItemIterator(nullptr));
    ASSERT_TRUE(broken && whole);
    EXPECT_FALSE(broken->isParsed());
    EXPECT_EQ(names(*broken), Lines());
    EXPECT_TRUE(broken->getFailure());
    EXPECT_TRUE(whole->isParsed());
    EXPECT_FALSE(whole->getFailure());
    EXPECT_EQ(names(*whole), (Lines{"a", "b"}));
}

TEST(AuthSubIteratorTest, WithoutDataTheDiscoveryIsNotParsed)
{
    const LogCapture log;
    const auto items = research(nullptr);
    ASSERT_TRUE(items);
    EXPECT_FALSE(items->isParsed());
    EXPECT_EQ(names(*items), Lines());
    EXPECT_EQ(log.texts(1),
              (Lines{"Invalid collection data pointer", "Failed to parse discovery"}));
    EXPECT_EQ(items->getFailure(),
              (ResearchFailure{ResearchProblem::NO_DATA, "Invalid collection data pointer",
                               "subject1", "host1"}));
}

TEST(AuthSubIteratorTest, DataThatDoesNotOpenIsNotParsed)
{
    auto* const data = new MemoryData(TWO_ITEMS);
    data->opens = false;
    const LogCapture log;
    const auto items = research(data);
    ASSERT_TRUE(items);
    EXPECT_FALSE(items->isParsed());
    EXPECT_EQ(names(*items), Lines());
    EXPECT_EQ(log.texts(1), (Lines{"Failed to read collection data", "Failed to parse discovery"}));
    EXPECT_EQ(items->getFailure(),
              (ResearchFailure{ResearchProblem::NOT_OPENED, "Failed to read collection data",
                               "subject1", "host1"}));
}

TEST(AuthSubIteratorTest, TheBackendsReasonGoesBeforeOurOwn)
{
    auto* const data = new MemoryData(TWO_ITEMS);
    data->opens = false;
    data->openFailure = "the disk is on fire";
    const auto items = research(data);
    ASSERT_TRUE(items && items->getFailure());
    EXPECT_EQ(items->getFailure()->problem, ResearchProblem::NOT_OPENED);
    EXPECT_EQ(items->getFailure()->cause, "the disk is on fire");
}

TEST(CollectionItemIteratorTest, ACopyKeepsTheFailure)
{
    const ResearchFailure failure{ResearchProblem::NOT_PARSED, "cause", "subject1", "host1"};
    const AutoDereference<CollectionItemIterator> original(
        new CollectionItemIterator(nullptr, nullptr, new CollectionItemList, failure));
    const AutoDereference<CollectionItemIterator> copy(new CollectionItemIterator(*original));
    EXPECT_FALSE(copy->isParsed());
    EXPECT_EQ(copy->getFailure(), failure);
}

/// Reads data with a filter and returns the argument of the open.
std::string openArgument(const FilterParameters* filter)
{
    std::string opened = "not opened";
    auto* const data = new MemoryData("<DiscoveredItems/>");
    data->onOpen = [&](OpenMode mode, const char* arg) {
        EXPECT_EQ(mode, OM_READ);
        opened = arg ? arg : "null";
    };
    const AutoDereference<ListedDiscoveries> discoveries(new ListedDiscoveries);
    discoveries->add(data);
    const AutoDereference<AuthSubIterator> all(new AuthSubIterator(discoveries.get()));
    const AutoDereference<CollectionItemIterator> items(all->getNextCollectionItemIterator(filter));
    EXPECT_TRUE(items && items->isParsed());
    return opened;
}

TEST(AuthSubIteratorTest, TheFilterIsHandedToTheSourceOfTheData)
{
    EXPECT_EQ(openArgument(nullptr), "");
    const FilterParameters empty(nullptr, "");
    EXPECT_EQ(openArgument(&empty), "");
    const FilterParameters filter(nullptr, "size > 10G");
    EXPECT_EQ(openArgument(&filter),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?><FilterParameters><QueryString>"
              "size &gt; 10G</QueryString></FilterParameters>");
}

TEST(AuthSubIteratorTest, AFailedReadIsTheEnd)
{
    for (const auto end : {MemoryData::ET_MINUS_ONE, MemoryData::ET_THROWS}) {
        const LogCapture log;
        EXPECT_TRUE(readItems(new MemoryData(TWO_ITEMS, 7, end)).parsed);
        const auto cut = readItems(new MemoryData(TWO_ITEMS.substr(0, 50), 7, end));
        EXPECT_FALSE(cut.parsed);
        EXPECT_EQ(cut.all(), Lines{"<Discovered Name=\"a\"></Discovered>"});
        EXPECT_EQ(log.texts(1).back(), "Failed to parse discovery");
    }
}

/// Data that shuts the service down during its second read.
class LastData : public MemoryData
{
  public:
    explicit LastData(const std::string& text) : MemoryData(text, text.size() / 2) {}
    std::size_t readCollection(std::size_t length, void* buffer) const override
    {
        if (++m_reads == 2)
            getDiscoveryRepository()->shutdown();
        return MemoryData::readCollection(length, buffer);
    }

  private:
    mutable unsigned m_reads = 0;
};

TEST(AuthSubIteratorTest, ADocumentEndsWithTheService)
{
    // Longer than the part that the parser reads to find the encoding.
    std::string text = "<DiscoveredItems><DISCOVERED Name='a'/>";
    for (int i = 0; i < 200; ++i)
        text += "<!-- " + std::string(1000, 'x') + " -->";
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems(new LastData(text + "</DiscoveredItems>"));
    EXPECT_FALSE(items.parsed);
    EXPECT_EQ(items.all(), Lines{"<Discovered Name=\"a\"></Discovered>"});
    const Lines lines = log.texts(1);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[0].starts_with("Failed to parse the document DiscoveredItems: line 1, "))
        << lines[0];
    EXPECT_EQ(lines[1], "Failed to parse the discovery stream");
    EXPECT_EQ(lines[2], "Failed to parse discovery");
}

TEST(AuthSubIteratorTest, WritesNothing)
{
    const AutoDereference<AuthSubIterator> all(new AuthSubIterator(nullptr));
    std::ostringstream out;
    EXPECT_EQ(&all->writeXml(out, XmlStr::XE_UTF8), &out);
    EXPECT_EQ(out.str(), "");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
