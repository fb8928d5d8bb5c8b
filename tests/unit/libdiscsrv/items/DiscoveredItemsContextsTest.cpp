// Calls in a wrong order during a parse of items. Each is reported and does no harm.

#include "DiscoveredItemsContexts.h"

#include <gtest/gtest.h>

#include "ItemsFixture.h"
#include "support/Capture.h"
#include "support/ParseCalls.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::UNKNOWN;
using QmTest::utf16;
using Contexts = std::vector<XmlObjParseContext*>;

/// Returns the results that the test sets.
class OddItem : public virtual CollectionItem
{
  public:
    explicit OddItem(int answer) : m_answer(answer) {}
    int xmlEndElement(XmlObjParseContext*, const XMLCh*) override { return m_answer; }

  private:
    const int m_answer;
};

struct DiscoveredItemsContextsTest : QmTest::ParseCalls
{
    LogCapture log{LOG_LEVEL_FAILURE};
    AutoDereference<AuthSubIterator> all{new AuthSubIterator(nullptr)};
    AutoDereference<DiscoveredItem> item{new DiscoveredItem("a")};
    DiscoverySetContext document{utf16("DiscoveredItems").c_str()};
    DiscoveredDataContext data{utf16("DISCOVERED").c_str(), &document};
};

TEST_F(DiscoveredItemsContextsTest, AContextOfAnotherKind)
{
    XmlObjParseContext plain(utf16("DISCOVERED").c_str());
    for (XmlObjParseContext* context : Contexts{&plain, &data, nullptr}) {
        start(*all, context, "DiscoveredItems");
        characters(*all, context);
        EXPECT_EQ(end(*all, context, "DiscoveredItems"), XML_NOTHING);
    }
    for (XmlObjParseContext* context : Contexts{&plain, &document, nullptr}) {
        start(*item, context, "StatusMsg");
        characters(*item, context);
        EXPECT_EQ(end(*item, context, "DISCOVERED"), XML_NOTHING);
    }
    EXPECT_EQ(assertions.texts(), Lines(18, "ctxt"));
    EXPECT_TRUE(plain.text().empty());
}

TEST_F(DiscoveredItemsContextsTest, TheNodesHaveTheirNumbers)
{
    start(*all, &document, "FilterData");
    start(*all, &document, "QueryDescription");
    EXPECT_EQ(document.m_nodes, (std::deque<std::uint32_t>{1, 3}));
    DiscoverySetContext items{utf16("DiscoveredItems").c_str()};
    start(*all, &items, "DiscoveredItems");
    start(*all, &items, "DISCOVERED");
    EXPECT_EQ(items.m_nodes, (std::deque<std::uint32_t>{0, 2}));
    std::uint32_t number = 0;
    for (const char* element : {"StatusMsg", "QMKPolicy", "ExplorerData"}) {
        DiscoveredDataContext context{utf16("DISCOVERED").c_str()};
        start(*item, &context, element);
        EXPECT_EQ(context.m_nodes, std::deque<std::uint32_t>{number++}) << element;
    }
    EXPECT_EQ(assertions.texts(), Lines());
}

TEST_F(DiscoveredItemsContextsTest, TheWayOfOneItem)
{
    start(*item, &data, "StatusMsg");
    EXPECT_EQ(end(*item, &data, "x"), XML_INSIDE);
    EXPECT_EQ(data.m_nodes.size(), 1u);
    EXPECT_EQ(end(*item, &data, "StatusMsg"), XML_INSIDE);
    EXPECT_EQ(data.m_nodes.size(), 0u);
    EXPECT_EQ(data.m_subContext, nullptr);
    EXPECT_EQ(data.m_subInterface, nullptr);
    EXPECT_EQ(end(*item, &data, "DISCOVERED"), XML_COMPLETE);
    EXPECT_EQ(assertions.texts(), Lines());
}

TEST_F(DiscoveredItemsContextsTest, AnEndUnderAnotherName)
{
    EXPECT_EQ(end(*item, &data, "x"), XML_COMPLETE);
    EXPECT_EQ(end(*all, &document, "x"), XML_COMPLETE);
    EXPECT_EQ(assertions.texts(), Lines(2, "ctxt->isEndTag(name)"));
    EXPECT_EQ(end(*item, &data, "DISCOVERED"), XML_COMPLETE);
    EXPECT_EQ(end(*all, &document, "DiscoveredItems"), XML_COMPLETE);
    EXPECT_EQ(assertions.texts().size(), 2u);
}

TEST_F(DiscoveredItemsContextsTest, SkippedElementsReachNoParser)
{
    document.skipEnter();
    start(*all, &document, "DiscoveredItems");
    EXPECT_TRUE(document.m_nodes.empty());
    start(*item, &data, "StatusMsg"); // a state that the contexts of one parse share
    EXPECT_TRUE(data.m_nodes.empty());
    EXPECT_EQ(log.texts(1), Lines());
    document.skipLeave();
    EXPECT_FALSE(document.isSkipping());
}

TEST_F(DiscoveredItemsContextsTest, TextIsForgottenAtTheNextStart)
{
    characters(*all, &document);
    EXPECT_EQ(document.text(), TlxString("ab"));
    start(*all, &document, "DiscoveredItems");
    EXPECT_TRUE(document.text().empty());
    characters(*item, &data);
    EXPECT_EQ(data.text(), TlxString("ab"));
    start(*item, &data, "Unknown");
    EXPECT_TRUE(data.text().empty());
}

TEST_F(DiscoveredItemsContextsTest, AnUnknownNode)
{
    document.m_nodes = {0, 4};
    EXPECT_EQ(end(*all, &document, "x"), XML_INSIDE);
    EXPECT_EQ(document.m_nodes, std::deque<std::uint32_t>{0});
    data.m_nodes = {3};
    EXPECT_EQ(end(*item, &data, "x"), XML_INSIDE);
    EXPECT_TRUE(data.m_nodes.empty());
    EXPECT_EQ(log.texts(1), Lines(2, UNKNOWN));
    EXPECT_EQ(log.lines()[0].operation, "AuthSubIterator::xmlEndElement");
    EXPECT_EQ(log.lines()[1].operation, "DiscoveredItem::xmlEndElement");
    EXPECT_EQ(assertions.texts(), Lines());
}

const Lines BOTH_MISSING = {"ctxt->m_subContext", "ctxt->m_subInterface"};

TEST_F(DiscoveredItemsContextsTest, AnItemThatIsNotThere)
{
    for (const std::uint32_t node : {2u, 3u}) {
        document.m_nodes = {0, node};
        start(*all, &document, "x");
        characters(*all, &document);
        EXPECT_EQ(end(*all, &document, "x"), XML_NOTHING);
        EXPECT_EQ(document.m_nodes, std::deque<std::uint32_t>{0});
    }
    const Lines reported = assertions.texts();
    ASSERT_EQ(reported.size(), 8u);
    for (std::size_t i = 0; i < reported.size(); ++i)
        EXPECT_EQ(reported[i], BOTH_MISSING[i % 2]);
}

TEST_F(DiscoveredItemsContextsTest, AContentThatIsNotThere)
{
    for (const std::uint32_t node : {0u, 1u, 2u}) {
        data.m_nodes = {node};
        start(*item, &data, "x");
        characters(*item, &data);
        EXPECT_EQ(end(*item, &data, "x"), XML_INSIDE);
        EXPECT_TRUE(data.m_nodes.empty());
    }
    const Lines reported = assertions.texts();
    ASSERT_EQ(reported.size(), 12u);
    for (std::size_t i = 0; i < reported.size(); ++i)
        EXPECT_EQ(reported[i], BOTH_MISSING[i % 2]);
}

TEST_F(DiscoveredItemsContextsTest, AContextWithoutItsObject)
{
    document.m_subContext = std::make_unique<XmlObjParseContext>(utf16("x").c_str());
    document.m_nodes = {0, 2};
    start(*all, &document, "x");
    characters(*all, &document);
    EXPECT_EQ(end(*all, &document, "x"), XML_NOTHING);
    EXPECT_EQ(assertions.texts(), Lines(3, "ctxt->m_subInterface"));
    data.m_subContext = std::make_unique<XmlObjParseContext>(utf16("x").c_str());
    data.m_nodes = {2};
    start(*item, &data, "x");
    characters(*item, &data);
    EXPECT_EQ(end(*item, &data, "x"), XML_INSIDE);
    EXPECT_EQ(assertions.texts(), Lines(6, "ctxt->m_subInterface"));
}

TEST_F(DiscoveredItemsContextsTest, AnItemThatGivesAnUnknownAnswer)
{
    document.m_nodes = {0, 2};
    document.m_subContext = std::make_unique<XmlObjParseContext>(utf16("x").c_str());
    document.m_subInterface.reset(new OddItem(7));
    EXPECT_EQ(end(*all, &document, "x"), XML_INSIDE);
    EXPECT_EQ(assertions.texts(), Lines{"SHOULD_NOT_GET_HERE"});
}

TEST_F(DiscoveredItemsContextsTest, AnItemThatYieldsNothingIsOver)
{
    document.m_nodes = {0, 2};
    document.m_subContext = std::make_unique<XmlObjParseContext>(utf16("x").c_str());
    document.m_subInterface.reset(new OddItem(XML_NOTHING));
    EXPECT_EQ(end(*all, &document, "x"), XML_NOTHING);
    EXPECT_EQ(document.m_nodes, std::deque<std::uint32_t>{0});
    EXPECT_EQ(document.m_subContext, nullptr);
    EXPECT_FALSE(document.m_subInterface);
    EXPECT_EQ(assertions.texts(), Lines());
}

TEST_F(DiscoveredItemsContextsTest, AnItemWithoutAListToGoTo)
{
    start(*all, &document, "DiscoveredItems");
    start(*all, &document, "DISCOVERED");
    EXPECT_EQ(end(*all, &document, "DISCOVERED"), XML_INSIDE);
    EXPECT_EQ(assertions.texts(), Lines{"m_items"});
    EXPECT_EQ(end(*all, &document, "DiscoveredItems"), XML_COMPLETE);
}

TEST_F(DiscoveredItemsContextsTest, ANewItemTakesTheLastOnesPlace)
{
    document.m_nodes = {0};
    const AutoDereference<CollectionItem> old(new OddItem(0));
    document.m_subInterface = old;
    document.m_subContext = std::make_unique<XmlObjParseContext>(utf16("x").c_str());
    start(*all, &document, "DISCOVERED");
    EXPECT_EQ(old->referenceCount(), 1u);
    EXPECT_NE(dynamic_cast<DiscoveredItem*>(document.m_subInterface.get()), nullptr);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
