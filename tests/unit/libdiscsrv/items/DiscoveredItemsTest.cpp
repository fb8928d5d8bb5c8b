// The discovered-items document: what its elements become, how unknown ones are skipped, and how
// an item is written.

#include "DiscoveredItems.h"

#include <gtest/gtest.h>

#include "ItemsFixture.h"
#include "support/Capture.h"
#include "support/Documentation.h"
#include "support/NameOnly.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::block;
using QmTest::dataOf;
using QmTest::document;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::ReadItems;
using QmTest::readItems;
using QmTest::readSound;
using QmTest::UNKNOWN;

const std::string WHOLE =
    "<DISCOVERED Name='host1'><StatusMsg Code='17'>down &amp; out</StatusMsg>"
    "<QMKPolicy Name='nightly' Type='filesystem' Active='1' Retention='30'>p</QMKPolicy>"
    "<ExplorerData Name='FileSystems'><Type>ext4</Type><Size>1</Size></ExplorerData></DISCOVERED>";
const std::string WHOLE_WRITTEN =
    "<Discovered Name=\"host1\"><STATUSMSG Code=\"17\">down &amp; out</STATUSMSG>"
    "<QMKPolicy Name=\"nightly\" Type=\"filesystem\" Active=\"1\" Retention=\"30\">p</QMKPolicy>"
    "<ExplorerData Name=\"FileSystems\"><Type>ext4</Type><Size>1</Size></ExplorerData>"
    "</Discovered>";

TEST(DiscoveredItemsTest, ADocumentWithoutItemsYieldsAnEmptyList)
{
    for (const char* text : {"<DiscoveredItems/>", "<DiscoveredItems></DiscoveredItems>",
                             "<DiscoveredItems> \r\n\t </DiscoveredItems>", "<FilterData/>"})
        EXPECT_EQ(readSound(text).items.size(), 0u) << text;
}

TEST(DiscoveredItemsTest, AnItemHoldsWhatItsElementsSay)
{
    const ReadItems items = readSound(document(WHOLE));
    ASSERT_EQ(items.items.size(), 1u);
    const DiscoveredItem* item = items.discovered(0);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->referenceCount(), 1u);
    EXPECT_EQ(item->getName(), "host1");
    ASSERT_NE(item->getStatusMsg(), nullptr);
    EXPECT_EQ(item->getStatusMsg()->code(), 17);
    EXPECT_EQ(item->getStatusMsg()->text(), TlxString("down & out"));
    ASSERT_NE(item->getPolicy(), nullptr);
    EXPECT_EQ(item->getPolicy()->values(),
              (QmkPolicy::Values{"nightly", "filesystem", true, 30, "p"}));
    EXPECT_EQ(item->getExplorerName(), TlxString("FileSystems"));
    const AutoDereference<ExplorerData> data(item->getExplorerData());
    ASSERT_TRUE(data);
    EXPECT_EQ(data->referenceCount(), 2u); // the reference of the item and this one
    EXPECT_TRUE(data->isParsed());
    EXPECT_EQ(dataOf(items), "<Type>ext4</Type><Size>1</Size>");
}

TEST(DiscoveredItemsTest, AnItemIsWrittenAsDiscovered)
{
    EXPECT_EQ(readSound(document(WHOLE)).all(), Lines{WHOLE_WRITTEN});
}

TEST(DiscoveredItemsTest, WhatIsWrittenReadsBackAsAnItem)
{
    const ReadItems back = readSound(document(WHOLE_WRITTEN + WHOLE_WRITTEN));
    EXPECT_EQ(back.all(), (Lines{WHOLE_WRITTEN, WHOLE_WRITTEN}));
}

TEST(DiscoveredItemsTest, TheCaseOfTheNamesOfElementsDoesNotMatter)
{
    EXPECT_EQ(readSound("<DISCOVEREDITEMS><discovered Name='a'><STATUSMSG Code='1'>s</STATUSMSG>"
                        "<qmkpolicy Name='p'/><EXPLORERDATA Name='e'>d</EXPLORERDATA></discovered>"
                        "</DISCOVEREDITEMS>")
                  .all(),
              Lines{"<Discovered Name=\"a\"><STATUSMSG Code=\"1\">s</STATUSMSG><QMKPolicy "
                    "Name=\"p\" Type=\"\" Active=\"0\" Retention=\"0\"></QMKPolicy><ExplorerData "
                    "Name=\"e\">d</ExplorerData></Discovered>"});
}

TEST(DiscoveredItemsTest, AnItemWithoutANameIsWrittenAsABareStartTag)
{
    for (const char* start : {"<DISCOVERED>", "<DISCOVERED Name=''>", "<DISCOVERED name='a'>"}) {
        const ReadItems items = readSound(document(std::string(start) + "</DISCOVERED>"));
        ASSERT_EQ(items.items.size(), 1u);
        EXPECT_EQ(items.discovered(0)->getName(), "");
        EXPECT_EQ(items.discovered(0)->getStatusMsg(), nullptr);
        EXPECT_EQ(items.discovered(0)->getPolicy(), nullptr);
        EXPECT_EQ(items.discovered(0)->getExplorerData(), nullptr);
        EXPECT_EQ(items.written(0), "<Discovered></Discovered>");
    }
}

TEST(DiscoveredItemsTest, NamesAreEscapedInTheEncodingThatIsAsked)
{
    const ReadItems items = readSound(
        document("<DISCOVERED Name='&lt;a&amp;&quot;&#10;\xC3\xA9\xE6\x97\xA5'><ExplorerData "
                 "Name='&quot;\xC3\xA9'/></DISCOVERED>"));
    EXPECT_EQ(items.written(0),
              "<Discovered Name=\"&lt;a&amp;&quot;&#10;\xC3\xA9\xE6\x97\xA5\"><ExplorerData "
              "Name=\"&quot;\xC3\xA9\"></ExplorerData></Discovered>");
    EXPECT_EQ(items.written(0, XmlStr::XE_ASCII),
              "<Discovered Name=\"&lt;a&amp;&quot;&#10;&#233;&#26085;\"><ExplorerData "
              "Name=\"&quot;&#233;\"></ExplorerData></Discovered>");
    EXPECT_EQ(readSound(document(items.written(0))).discovered(0)->getName(),
              items.discovered(0)->getName());
}

TEST(DiscoveredItemsTest, TheSecondOfAKindReplacesTheFirst)
{
    EXPECT_EQ(readSound(document("<DISCOVERED><StatusMsg Code='1'>a</StatusMsg>"
                                 "<StatusMsg Code='2'/></DISCOVERED>"))
                  .all(),
              Lines{"<Discovered><STATUSMSG Code=\"2\"></STATUSMSG></Discovered>"});
    const ReadItems policies =
        readSound(document("<DISCOVERED><QMKPolicy Name='a'/><QMKPolicy Name='b'/></DISCOVERED>"));
    EXPECT_EQ(policies.discovered(0)->getPolicy()->name(), TlxString("b"));
    EXPECT_EQ(readSound(document("<DISCOVERED><ExplorerData Name='a'>1</ExplorerData>"
                                 "<ExplorerData Name='b'>2</ExplorerData></DISCOVERED>"))
                  .all(),
              Lines{"<Discovered><ExplorerData Name=\"b\">2</ExplorerData></Discovered>"});
}

TEST(DiscoveredItemsTest, NothingOfOneItemIsLeftInTheNext)
{
    EXPECT_EQ(readSound(document("text" + WHOLE + "text<DISCOVERED/>text")).all(),
              (Lines{WHOLE_WRITTEN, "<Discovered></Discovered>"}));
}

TEST(DiscoveredItemsTest, TheDocumentedExampleReadsAndIsWrittenAsDocumented)
{
    const Lines code = QmTest::codeOf("Discovered items");
    ASSERT_EQ(code.size(), 2u);
    const ReadItems items = readSound(code[0]);
    std::string oneLine = code[1];
    std::erase(oneLine, '\n');
    EXPECT_EQ(items.all(), (Lines{oneLine, "<Discovered Name=\"/tmp\"></Discovered>"}));
    EXPECT_EQ(items.discovered(0)->getStatusMsg()->text(), TlxString("not mounted & not missed"));
    EXPECT_EQ(dataOf(items), "<Type>ext4</Type><Size>4096</Size>");
    EXPECT_EQ(readSound(document(oneLine)).all(), Lines{oneLine});
}

// Unknown elements.

TEST(DiscoveredItemsTest, AnUnknownElementInAnItemIsLoggedOnceAndSkippedWhole)
{
    const AssertionCapture assertions;
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems(document(
        "<DISCOVERED Name='a'><Unknown x='1'>text<StatusMsg Code='9'>no</StatusMsg><Inner><Inner/>"
        "</Inner><DISCOVERED Name='b'/></Unknown><StatusMsg Code='1'>yes</StatusMsg></DISCOVERED>"
        "<DISCOVERED Name='c'/>"));
    EXPECT_TRUE(items.parsed);
    EXPECT_EQ(items.all(),
              (Lines{"<Discovered Name=\"a\"><STATUSMSG Code=\"1\">yes</STATUSMSG></Discovered>",
                     "<Discovered Name=\"c\"></Discovered>"}));
    ASSERT_EQ(log.texts(1), Lines{UNKNOWN});
    EXPECT_EQ(log.lines()[0].operation, "DiscoveredItem::xmlStartElement");
    EXPECT_EQ(log.lines()[0].source, "../DiscoveredItems");
    EXPECT_EQ(log.lines()[0].originator, 400u);
    EXPECT_EQ(assertions.texts(), Lines());
}

TEST(DiscoveredItemsTest, AnUnknownElementOfTheDocumentIsLoggedOnceAndSkippedWhole)
{
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems(
        document("<Unknown><DISCOVERED Name='no'/></Unknown><DISCOVERED Name='a'/><FilterData/>"
                 "<QueryDescription/>"));
    EXPECT_TRUE(items.parsed);
    EXPECT_EQ(items.all(), Lines{"<Discovered Name=\"a\"></Discovered>"});
    EXPECT_EQ(log.texts(1), Lines(3, UNKNOWN));
    EXPECT_EQ(log.lines()[0].operation, "AuthSubIterator::xmlStartElement");
}

TEST(DiscoveredItemsTest, AnUnknownRootIsLoggedOnceAndYieldsNothing)
{
    for (const char* text : {"<Unknown><DISCOVERED/></Unknown>", "<DISCOVERED Name='a'/>",
                             "<x:DiscoveredItems xmlns:x='u'><DISCOVERED/></x:DiscoveredItems>"}) {
        const LogCapture log(LOG_LEVEL_FAILURE);
        const ReadItems items = readItems(text);
        EXPECT_TRUE(items.parsed);
        EXPECT_EQ(items.items.size(), 0u);
        EXPECT_EQ(log.texts(1), Lines{UNKNOWN}) << text;
    }
}

TEST(DiscoveredItemsTest, TheRecordOfAnotherHostsExplorerYieldsNoItems)
{
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems(
        document("\n<SourceHost>client1</SourceHost><ServiceName>DiscoveryService</ServiceName>"
                 "<Priority>5</Priority><OriginType>3</OriginType>"));
    EXPECT_TRUE(items.parsed);
    EXPECT_EQ(items.items.size(), 0u);
    EXPECT_EQ(log.texts(1), Lines(4, UNKNOWN));
}

TEST(DiscoveredItemsTest, ElementsInsideAStatusMessageOrAPolicyAreUnknown)
{
    EXPECT_EQ(readSound(document("<DISCOVERED><StatusMsg Code='1'>a<StatusMsg>b</StatusMsg>"
                                 "<DISCOVERED/>c</StatusMsg><QMKPolicy Name='p'><x/><QMKPolicy/>"
                                 "</QMKPolicy></DISCOVERED>"))
                  .all(),
              Lines{"<Discovered><STATUSMSG Code=\"1\">ac</STATUSMSG><QMKPolicy Name=\"p\" "
                    "Type=\"\" Active=\"0\" Retention=\"0\"></QMKPolicy></Discovered>"});
}

// Filter data.

TEST(DiscoveredItemsTest, AFilterDescriptionBecomesAFilterItem)
{
    const ReadItems items = readSound(
        "<FilterData><QueryDescription><Field Name='size' Type='bytes'><Description>how much"
        "</Description></Field></QueryDescription> <querydescription/></FilterData>");
    ASSERT_EQ(items.items.size(), 2u);
    const auto* filter = dynamic_cast<const FilterItem*>(items.items[0].get());
    ASSERT_NE(filter, nullptr);
    ASSERT_NE(filter->getQuery(), nullptr);
    ASSERT_NE(filter->getQuery()->field("size"), nullptr);
    EXPECT_EQ(filter->getQuery()->field("size")->description, TlxString("how much"));
    EXPECT_EQ(filter->getQuery()->referenceCount(), 1u);
    EXPECT_EQ(items.written(0), QmTest::written(*filter->getQuery()));
    EXPECT_EQ(readSound("<FilterData>" + items.written(0) + "</FilterData>").all(),
              Lines{items.written(0)});
    EXPECT_EQ(items.discovered(0), nullptr);
}

TEST(DiscoveredItemsTest, ADescriptionThatYieldsNothingAddsNoItem)
{
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items =
        readItems("<FilterData><QueryDescription><Query>size &gt;</Query></QueryDescription>"
                  "<QueryDescription><Query>size &gt; 1</Query></QueryDescription></FilterData>");
    EXPECT_TRUE(items.parsed);
    ASSERT_EQ(items.items.size(), 1u);
    EXPECT_EQ(dynamic_cast<const FilterItem&>(*items.items[0]).getQuery()->query(),
              TlxString("size > 1"));
    EXPECT_EQ(log.texts(1).size(), 1u);
}

TEST(DiscoveredItemsTest, AnUnknownElementInFilterDataIsLoggedOnceAndSkippedWhole)
{
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems("<FilterData><DISCOVERED><QueryDescription/></DISCOVERED>"
                                      "<QueryDescription/></FilterData>");
    EXPECT_TRUE(items.parsed);
    EXPECT_EQ(items.items.size(), 1u);
    EXPECT_EQ(log.texts(1), Lines{UNKNOWN});
}

TEST(DiscoveredItemsTest, AFilterItemWithoutADescriptionIsReportedAndDoesNothing)
{
    const AssertionCapture assertions;
    const AutoDereference<FilterItem> item(new FilterItem(nullptr));
    const auto name = TlxString("QueryDescription").toXmlCh();
    QmTest::NameOnly attributes;
    EXPECT_EQ(item->getQuery(), nullptr);
    item->xmlStartElement(nullptr, name.c_str(), attributes);
    item->xmlCharacters(nullptr, name.c_str(), 1);
    EXPECT_EQ(item->xmlEndElement(nullptr, name.c_str()), XML_NOTHING);
    EXPECT_EQ(QmTest::written(*item), "");
    EXPECT_EQ(assertions.texts(), Lines(3, "m_query"));
}

// Blocks that the default parser reads.

TEST(DiscoveredItemsTest, AnEmptyBlockIsAnEmptyText)
{
    EXPECT_EQ(dataOf(readSound(block(""))), "");
    EXPECT_EQ(readSound(document("<DISCOVERED><ExplorerData/></DISCOVERED>")).all(),
              Lines{"<Discovered><ExplorerData Name=\"\"></ExplorerData></Discovered>"});
}

TEST(DiscoveredItemsTest, ABlockIsKeptAsItsInnerXml)
{
    EXPECT_EQ(dataOf(readSound(block("a&amp;b"))), "a&amp;b");
    EXPECT_EQ(dataOf(readSound(block("<a>1</a><b/>"))), "<a>1</a><b></b>");
    EXPECT_EQ(dataOf(readSound(block("<a x='1'/>"))), "<a \"x\"=\"1\"></a>");
    EXPECT_EQ(dataOf(readSound(block("<StatusMsg/><DISCOVERED/>"))),
              "<StatusMsg></StatusMsg><DISCOVERED></DISCOVERED>");
}

TEST(DiscoveredItemsTest, WhiteSpaceIsKeptWhereItStands)
{
    EXPECT_EQ(dataOf(readSound(block(" <a> \t1 </a>\r\n <b/>"))), " <a> \t1 </a>\n <b></b>");
}

TEST(DiscoveredItemsTest, AnInnerBlockOfTheSameNameEndsTheBlockEarly)
{
    const AssertionCapture assertions;
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems(
        document("<DISCOVERED Name='a'><ExplorerData Name='e'>1<ExplorerData>2</ExplorerData>3"
                 "</ExplorerData></DISCOVERED><DISCOVERED Name='b'/>"));
    // After that the parse is one element ahead: it treats the outer end as the end of the item,
    // and the end of the item as the end of the document.
    EXPECT_TRUE(items.parsed);
    EXPECT_EQ(items.all(), Lines{"<Discovered Name=\"a\"><ExplorerData Name=\"e\">1<ExplorerData>2"
                                 "</ExplorerData></Discovered>"});
    EXPECT_EQ(assertions.texts(), Lines{"ctxt->isEndTag(name)"});
    EXPECT_EQ(log.texts(1), Lines{UNKNOWN});
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
