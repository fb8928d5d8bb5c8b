// The discovered-items document: what its elements become, what becomes of all else, and how an
// item is written.

#include "DiscoveredItems.h"

#include <fstream>

#include <gtest/gtest.h>

#include "DiscoveryRepository.h"
#include "DiscoverySetSource.h"
#include "ItemsFixture.h"
#include "ServiceFixture.h"
#include "support/Capture.h"
#include "support/Documentation.h"
#include "support/NameOnly.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::MemoryData;
using QmTest::ReadItems;
using QmTest::readItems;

constexpr const char* UNKNOWN = "Ignoring Unknown Tag";

std::string document(const std::string& items)
{
    return "<DiscoveredItems>" + items + "</DiscoveredItems>";
}

/// The items of a document in which nothing is wrong.
ReadItems readSound(const std::string& text)
{
    const AssertionCapture assertions;
    const LogCapture log(LOG_LEVEL_FAILURE);
    ReadItems items = readItems(text);
    EXPECT_TRUE(items.parsed) << text;
    EXPECT_EQ(log.texts(1), Lines()) << text;
    EXPECT_EQ(assertions.texts(), Lines()) << text;
    return items;
}

/// The text of an item's explorer data; "?" without data.
std::string dataOf(const ReadItems& items, std::size_t i = 0)
{
    const DiscoveredItem* item = items.discovered(i);
    const AutoDereference<ExplorerData> data(item ? item->getExplorerData() : nullptr);
    if (!data)
        return "?";
    std::ostringstream out;
    data->writeXml(out, XmlStr::XE_UTF8);
    return out.str();
}

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
    EXPECT_EQ(data->referenceCount(), 2u); // the item's and this one
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
    EXPECT_EQ(items.written(0, XmlStr::XE_LATIN1),
              "<Discovered Name=\"&lt;a&amp;&quot;&#10;\xE9&#26085;\"><ExplorerData "
              "Name=\"&quot;\xE9\"></ExplorerData></Discovered>");
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

// What is not known.

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

TEST(DiscoveredItemsTest, ElementsInsideAStatusMessageOrAPolicyAreNobodys)
{
    EXPECT_EQ(readSound(document("<DISCOVERED><StatusMsg Code='1'>a<StatusMsg>b</StatusMsg>"
                                 "<DISCOVERED/>c</StatusMsg><QMKPolicy Name='p'><x/><QMKPolicy/>"
                                 "</QMKPolicy></DISCOVERED>"))
                  .all(),
              Lines{"<Discovered><STATUSMSG Code=\"1\">ac</STATUSMSG><QMKPolicy Name=\"p\" "
                    "Type=\"\" Active=\"0\" Retention=\"0\"></QMKPolicy></Discovered>"});
}

// What can be filtered by.

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

TEST(DiscoveredItemsTest, ADescriptionThatYieldsNothingIsNoItem)
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

// The default parser's blocks.

std::string block(const std::string& inner)
{
    return document("<DISCOVERED><ExplorerData Name='e'>" + inner + "</ExplorerData></DISCOVERED>");
}

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
    // The rest of the document is out of step: the outer end is taken for the item's, the item's
    // for the document's.
    EXPECT_TRUE(items.parsed);
    EXPECT_EQ(items.all(), Lines{"<Discovered Name=\"a\"><ExplorerData Name=\"e\">1<ExplorerData>2"
                                 "</ExplorerData></Discovered>"});
    EXPECT_EQ(assertions.texts(), Lines{"ctxt->isEndTag(name)"});
    EXPECT_EQ(log.texts(1), Lines{UNKNOWN});
}

// Documents of other tools.

TEST(DiscoveredItemsTest, TextComesOutWholeWhateverThePieces)
{
    const std::string text =
        document("<DISCOVERED Name='\xC3\xA9'><StatusMsg Code='1'>a&#x1F600;<![CDATA[<b>]]>&lt;"
                 "\xF0\x9F\x98\x80</StatusMsg><ExplorerData Name='e'><a>1&amp;2</a></ExplorerData>"
                 "</DISCOVERED>");
    for (const std::size_t piece : {1u, 2u, 3u, 5u, 7u, 511u, 512u, 513u}) {
        const ReadItems items = readItems(new MemoryData(text, piece));
        EXPECT_TRUE(items.parsed) << piece;
        EXPECT_EQ(items.all(),
                  Lines{"<Discovered Name=\"\xC3\xA9\"><STATUSMSG Code=\"1\">a\xF0\x9F\x98\x80"
                        "&lt;b&gt;&lt;\xF0\x9F\x98\x80</STATUSMSG><ExplorerData Name=\"e\"><a>"
                        "1&amp;2</a></ExplorerData></Discovered>"})
            << piece;
    }
}

TEST(DiscoveredItemsTest, TextIsWholeAcrossTheParsersOwnBuffers)
{
    std::string text;
    for (int i = 0; i < 30000; ++i)
        text += std::to_string(i) + "\xC3\xA9&amp;";
    const ReadItems items =
        readSound(document("<DISCOVERED><StatusMsg>" + text + "</StatusMsg></DISCOVERED>"));
    EXPECT_EQ(items.written(0),
              "<Discovered><STATUSMSG Code=\"0\">" + text + "</STATUSMSG></Discovered>");
}

TEST(DiscoveredItemsTest, CommentsInstructionsAndSectionsAreNoContent)
{
    EXPECT_EQ(readSound("<?xml version='1.0'?><?tool one?><!-- <DISCOVERED/> --><DiscoveredItems>"
                        "<!-- --><?tool <DISCOVERED/>?><DISCOVERED Name='a'><!--x--><?tool?>"
                        "<StatusMsg Code='1'>a<!-- b --><?c d?><![CDATA[<&]]></StatusMsg>"
                        "<ExplorerData Name='e'><!--x--><a><![CDATA[<&]]></a><?y?></ExplorerData>"
                        "</DISCOVERED></DiscoveredItems><!-- --><?tool end?>")
                  .all(),
              Lines{"<Discovered Name=\"a\"><STATUSMSG Code=\"1\">a&lt;&amp;</STATUSMSG>"
                    "<ExplorerData Name=\"e\"><a>&lt;&amp;</a></ExplorerData></Discovered>"});
}

TEST(DiscoveredItemsTest, NamespacesAreDeclaredWithoutHarmAndPrefixedElementsUnknown)
{
    EXPECT_EQ(readSound("<DiscoveredItems xmlns='urn:a' xmlns:x='urn:x'><DISCOVERED x:Name='b' "
                        "Name='a'/></DiscoveredItems>")
                  .all(),
              Lines{"<Discovered Name=\"a\"></Discovered>"});
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items =
        readItems("<DiscoveredItems xmlns:x='urn:x'><x:DISCOVERED/><DISCOVERED><x:StatusMsg/>"
                  "</DISCOVERED></DiscoveredItems>");
    EXPECT_EQ(items.all(), Lines{"<Discovered></Discovered>"});
    EXPECT_EQ(log.texts(1), Lines(2, UNKNOWN));
}

/// ASCII text as UTF-16, after a byte order mark.
std::string asUtf16(const std::string& text, bool bigEndian)
{
    std::string result = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (const char c : text) {
        const std::string zero(1, '\0');
        result += bigEndian ? zero + c : c + zero;
    }
    return result;
}

TEST(DiscoveredItemsTest, DocumentsTellTheirEncoding)
{
    const std::string plain = document("<DISCOVERED Name='&#233;'/>");
    const Lines expected{"<Discovered Name=\"\xC3\xA9\"></Discovered>"};
    EXPECT_EQ(readSound(plain).all(), expected);
    EXPECT_EQ(readSound("\xEF\xBB\xBF" + plain).all(), expected);
    EXPECT_EQ(readSound(asUtf16(plain, true)).all(), expected);
    EXPECT_EQ(readSound(asUtf16(plain, false)).all(), expected);
    EXPECT_EQ(readItems(new MemoryData(asUtf16(plain, false), 1)).all(), expected);
    EXPECT_EQ(readSound("<?xml version='1.0' encoding='ISO-8859-1'?>" +
                        document("<DISCOVERED Name='\xE9'/>"))
                  .all(),
              expected);
}

TEST(DiscoveredItemsTest, BytesThatAreNotOfTheEncodingBreakTheDocumentThere)
{
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems(document("<DISCOVERED Name='a'/><DISCOVERED Name='\xE9'/>"));
    EXPECT_FALSE(items.parsed);
    EXPECT_LE(items.items.size(), 1u); // the parser decodes ahead of its events
    EXPECT_EQ(log.texts(1).back(), "Failed to parse discovery");
}

TEST(DiscoveredItemsTest, CharacterReferencesAndSmallEntitiesAreText)
{
    EXPECT_EQ(readSound("<!DOCTYPE DiscoveredItems [<!ENTITY e 'x&#38;amp;'><!ENTITY i "
                        "\"<DISCOVERED Name='b'/>\">]><DiscoveredItems><DISCOVERED Name='&#97;"
                        "&e;'/>&i;</DiscoveredItems>")
                  .all(),
              (Lines{"<Discovered Name=\"ax&amp;\"></Discovered>",
                     "<Discovered Name=\"b\"></Discovered>"}));
}

// Documents that mean harm.

/// What a document leaves in the log, which must be a failure.
std::string failureOf(const std::string& text)
{
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems(text);
    EXPECT_FALSE(items.parsed);
    const Lines lines = log.texts(1);
    if (lines.size() < 3)
        return "too few lines";
    EXPECT_EQ(lines[lines.size() - 2], "Failed to parse the discovery stream");
    EXPECT_EQ(lines.back(), "Failed to parse discovery");
    return lines[lines.size() - 3];
}

TEST(DiscoveredItemsTest, EntityBombsFail)
{
    std::string bomb = "<!DOCTYPE DiscoveredItems [<!ENTITY e0 'xxxxxxxxxx'>";
    for (int i = 1; i < 10; ++i) {
        bomb += "<!ENTITY e" + std::to_string(i) + " '";
        for (int k = 0; k < 10; ++k)
            bomb += "&e" + std::to_string(i - 1) + ";";
        bomb += "'>";
    }
    bomb += "]>" + document("<DISCOVERED><StatusMsg>&e9;</StatusMsg></DISCOVERED>");
    EXPECT_NE(failureOf(bomb).find("entity"), std::string::npos) << failureOf(bomb);
    const std::string self = "<!DOCTYPE DiscoveredItems [<!ENTITY a '&b;'><!ENTITY b '&a;'>]>" +
                             document("<DISCOVERED>&a;</DISCOVERED>");
    EXPECT_TRUE(failureOf(self).starts_with("Failed to parse the document DiscoveredItems: line "))
        << failureOf(self);
}

TEST(DiscoveredItemsTest, ExternalEntitiesAreNotRead)
{
    const QmTest::TemporaryDirectory directory;
    const std::string secret = (directory.path() / "secret").string();
    std::ofstream(secret) << "secret";
    for (const std::string& where : {secret, "file://" + secret}) {
        const LogCapture log(LOG_LEVEL_FAILURE);
        const ReadItems items = readItems(
            "<!DOCTYPE DiscoveredItems [<!ENTITY e SYSTEM \"" + where + "\">]>" +
            document(
                "<DISCOVERED Name='a'/><DISCOVERED><StatusMsg>[&e;]</StatusMsg></DISCOVERED>"));
        for (const std::string& item : items.all())
            EXPECT_EQ(item.find("secret"), std::string::npos) << item;
        EXPECT_EQ(items.written(0), "<Discovered Name=\"a\"></Discovered>");
    }
}

TEST(DiscoveredItemsTest, ElementsNestedTooDeeplyFailAndTheItemsBeforeAreKept)
{
    std::string deep;
    for (unsigned i = 0; i < XML_MAX_DEPTH; ++i)
        deep += "<x>";
    for (const std::string& inner :
         {deep, "<DISCOVERED>" + deep, "<DISCOVERED><ExplorerData>" + deep}) {
        const LogCapture log(LOG_LEVEL_FAILURE);
        const ReadItems items = readItems("<DiscoveredItems><DISCOVERED Name='a'/>" + inner);
        EXPECT_FALSE(items.parsed);
        EXPECT_EQ(items.all(), Lines{"<Discovered Name=\"a\"></Discovered>"});
    }
    EXPECT_NE(failureOf("<DiscoveredItems>" + deep).find("elements are nested deeper than 256"),
              std::string::npos);
}

TEST(DiscoveredItemsTest, TenMebibytesOfTextComeThrough)
{
    const std::string text(10u << 20, 'x');
    const ReadItems status =
        readItems(document("<DISCOVERED><StatusMsg>" + text + "</StatusMsg></DISCOVERED>"));
    ASSERT_TRUE(status.parsed);
    EXPECT_TRUE(status.discovered(0)->getStatusMsg()->text() == TlxString(text));
    const ReadItems data = readItems(block("<a>" + text + "</a>"));
    ASSERT_TRUE(data.parsed);
    EXPECT_TRUE(dataOf(data) == "<a>" + text + "</a>");
}

TEST(DiscoveredItemsTest, AHundredThousandItemsComeThrough)
{
    constexpr int COUNT = 100000;
    std::string text;
    for (int i = 0; i < COUNT; ++i)
        text += "<DISCOVERED Name='" + std::to_string(i) +
                "'><ExplorerData Name='e'><a>1</a></ExplorerData></DISCOVERED>";
    const ReadItems items = readItems(document(text));
    EXPECT_TRUE(items.parsed);
    ASSERT_EQ(items.items.size(), std::size_t{COUNT});
    EXPECT_EQ(items.discovered(0)->getName(), "0");
    EXPECT_EQ(items.discovered(COUNT - 1)->getName(), "99999");
    EXPECT_EQ(dataOf(items, COUNT - 1), "<a>1</a>");
}

TEST(DiscoveredItemsTest, OneItemTooManyEndsTheDocument)
{
    std::string text;
    for (std::size_t i = 0; i <= MAX_COLLECTION_ITEMS; ++i)
        text += "<DISCOVERED/>";
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems(document(text));
    EXPECT_FALSE(items.parsed);
    EXPECT_EQ(items.items.size(), MAX_COLLECTION_ITEMS);
    ASSERT_EQ(log.texts(1).size(), 3u);
    EXPECT_TRUE(log.texts(1)[0].ends_with(": there are more than 500000 items")) << log.texts(1)[0];
}

constexpr const char* TOO_MANY_FAULTS =
    ": there are more than 1000 elements that are unknown or refused";

/// Expects that a document with one fault too many ends there.
/// @param faults the lines that its faults leave
void expectEndAtFault(const std::string& text, const Lines& faults, const Lines& items)
{
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems read = readItems(text);
    EXPECT_FALSE(read.parsed);
    EXPECT_EQ(read.all(), items);
    const Lines lines = log.texts(1);
    ASSERT_EQ(lines.size(), faults.size() + 3);
    EXPECT_EQ(Lines(lines.begin(), lines.end() - 3), faults);
    const std::string& why = lines[faults.size()];
    EXPECT_TRUE(why.starts_with("Failed to parse the document DiscoveredItems: line 1, column "))
        << why;
    EXPECT_TRUE(why.ends_with(TOO_MANY_FAULTS)) << why;
    EXPECT_EQ(lines[faults.size() + 1], "Failed to parse the discovery stream");
    EXPECT_EQ(lines[faults.size() + 2], "Failed to parse discovery");
}

std::string repeated(unsigned count, const std::string& text)
{
    std::string all;
    for (unsigned i = 0; i < count; ++i)
        all += text;
    return all;
}

TEST(DiscoveredItemsTest, AThousandUnknownElementsAreSkippedOneMoreEndsTheDocument)
{
    const std::string item = "<DISCOVERED Name='a'/>";
    const std::string written = "<Discovered Name=\"a\"></Discovered>";
    for (int twice = 0; twice < 2; ++twice) { // counted anew
        const LogCapture log(LOG_LEVEL_FAILURE);
        const ReadItems items = readItems(document(item + repeated(1000, "<x/>") + item));
        EXPECT_TRUE(items.parsed);
        EXPECT_EQ(items.all(), Lines(2, written));
        EXPECT_EQ(log.texts(1), Lines(1000, UNKNOWN));
    }
    expectEndAtFault(document(item + repeated(1001, "<x/>") + item), Lines(1001, UNKNOWN),
                     Lines{written});
}

TEST(DiscoveredItemsTest, UnknownElementsOfTheDocumentAndOfItsItemsCountTogether)
{
    const std::string item = "<DISCOVERED>" + repeated(250, "<x/>") + "</DISCOVERED>";
    const std::string text = repeated(500, "<x/>") + item + item;
    const Lines written(2, "<Discovered></Discovered>");
    {
        const LogCapture log(LOG_LEVEL_FAILURE);
        const ReadItems items = readItems(document(text));
        EXPECT_TRUE(items.parsed);
        EXPECT_EQ(items.all(), written);
        EXPECT_EQ(log.texts(1), Lines(1000, UNKNOWN));
    }
    expectEndAtFault(document(text + "<DISCOVERED><x/></DISCOVERED>"), Lines(1001, UNKNOWN),
                     written);
}

TEST(DiscoveredItemsTest, RefusedDescriptionsCountWithTheUnknownElements)
{
    const auto filterData = [](const std::string& inner) {
        return "<FilterData>" + inner + "</FilterData>";
    };
    const std::string noQuery = "<QueryDescription><Query>(</Query></QueryDescription>";
    const std::string noField = "<QueryDescription><Field/></QueryDescription>";
    const std::string text =
        repeated(400, "<x/>") + repeated(300, noQuery) + repeated(300, noField);
    const Lines written(300, "<QueryDescription></QueryDescription>");
    Lines faults;
    {
        const LogCapture log(LOG_LEVEL_FAILURE);
        const ReadItems items = readItems(filterData(text));
        EXPECT_TRUE(items.parsed);
        EXPECT_EQ(items.all(), written);
        faults = log.texts(1);
        ASSERT_EQ(faults.size(), 1000u);
        EXPECT_EQ(faults[399], UNKNOWN);
        EXPECT_TRUE(faults[400].starts_with("Refused a query description, its query is none: "));
        EXPECT_EQ(faults[999], "Not everything of a query description can be told; fields left "
                               "out: 1, the first \"\": its name is no name of a field");
    }
    for (const auto& [fault, line] :
         {std::pair{noQuery, faults[400]}, std::pair{noField, faults[999]}}) {
        Lines all = faults;
        all.push_back(line);
        // The description without its field is complete all the same.
        expectEndAtFault(filterData(text + fault), all,
                         Lines(fault == noField ? 301 : 300, written[0]));
    }
}

TEST(DiscoveredItemsTest, BlocksThatEndEarlyCountAsFaults)
{
    // Each is followed by the document's element again, without which no other would be an item.
    const std::string early = "<DISCOVERED><ExplorerData><ExplorerData></ExplorerData>"
                              "</ExplorerData></DISCOVERED><DiscoveredItems/>";
    const AssertionCapture assertions;
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems("<DiscoveredItems>" + repeated(2000, early));
    EXPECT_FALSE(items.parsed);
    EXPECT_LE(assertions.texts().size() + log.texts(1).size(), 1001u + 3);
    EXPECT_TRUE(log.texts(1)[log.texts(1).size() - 3].ends_with(TOO_MANY_FAULTS));
}

TEST(DiscoveredItemsTest, ABlockOfSixteenMebibytesIsKeptOneByteMoreEndsTheDocument)
{
    const std::string text((16u << 20) - std::string("<a></a>").size(), 'x');
    {
        const ReadItems items = readItems(block("<a>" + text + "</a>"));
        EXPECT_TRUE(items.parsed);
        EXPECT_TRUE(dataOf(items) == "<a>" + text + "</a>");
    }
    // Also when it is shorter as it is read than as it is kept.
    for (const std::string& inner : {"<a>" + text + "</a>x", "<a>x" + text + "</a>",
                                     "<a>" + text + "<b/></a>", std::string(3u << 20, '"')}) {
        const LogCapture log(LOG_LEVEL_FAILURE);
        const ReadItems items =
            readItems("<DiscoveredItems><DISCOVERED Name='a'/><DISCOVERED Name='b'>"
                      "<ExplorerData Name='e'>" +
                      inner + "</ExplorerData></DISCOVERED></DiscoveredItems>");
        EXPECT_FALSE(items.parsed);
        EXPECT_EQ(items.all(), Lines{"<Discovered Name=\"a\"></Discovered>"});
        const Lines lines = log.texts(1);
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_TRUE(lines[0].starts_with("Failed to parse the document DiscoveredItems: line 1, "))
            << lines[0];
        EXPECT_TRUE(lines[0].ends_with(": the data of an explorer have more than 16777216 bytes"))
            << lines[0];
    }
}

/// A document that never ends.
class EndlessData : public CollectionData
{
  public:
    bool open(OpenMode, const char*) override { return true; }
    std::size_t readCollection(std::size_t length, void* buffer) const override
    {
        for (std::size_t i = 0; i < length; ++i, ++m_read)
            static_cast<char*>(buffer)[i] = m_read < START.size()
                                                ? START[m_read]
                                                : COMMENT[(m_read - START.size()) % COMMENT.size()];
        return length;
    }
    bool writeCollection(std::size_t, const void*) const override { return false; }

  private:
    const std::string START = "<DiscoveredItems><DISCOVERED Name='a'/>";
    const std::string COMMENT = "<!--" + std::string(1000, ' ') + "-->"; // which nobody keeps
    mutable std::size_t m_read = 0;
};

TEST(DiscoveredItemsTest, ADocumentThatDoesNotEndEndsAtItsBound)
{
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems(new EndlessData);
    EXPECT_FALSE(items.parsed);
    EXPECT_EQ(items.all(), Lines{"<Discovered Name=\"a\"></Discovered>"});
    const Lines lines = log.texts(1);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0],
              "A collection that is read as items may have 67108864 bytes, this one has more");
    EXPECT_EQ(log.lines()[0].operation, "DiscoverySetBinInputStream::readBytes");
    EXPECT_EQ(lines[2], "Failed to parse the discovery stream");
}

// The source of the document.

TEST(DiscoverySetSourceTest, CountsWhatItReads)
{
    initialiseXml();
    const MemoryData data("abcdefgh", 5);
    const DiscoverySetInputSource source(data, "sysid");
    EXPECT_EQ(TlxString::fromXmlCh(source.getSystemId()), TlxString("sysid"));
    const std::unique_ptr<xercesc::BinInputStream> stream(source.makeStream());
    EXPECT_EQ(stream->getContentType(), nullptr);
    EXPECT_EQ(stream->curPos(), 0u);
    XMLByte buffer[16];
    EXPECT_EQ(stream->readBytes(buffer, 4), 4u);
    EXPECT_EQ(stream->curPos(), 4u);
    EXPECT_EQ(std::string(buffer, buffer + 4), "abcd");
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 4u);
    EXPECT_EQ(stream->curPos(), 8u);
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 0u);
    EXPECT_EQ(stream->curPos(), 8u);
}

TEST(DiscoverySetSourceTest, ReadsNothingOnceTheServiceEnds)
{
    initialiseXml();
    const MemoryData data("abcdefgh");
    const DiscoverySetInputSource source(data, "sysid");
    const std::unique_ptr<xercesc::BinInputStream> stream(source.makeStream());
    XMLByte buffer[4];
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 4u);
    getDiscoveryRepository()->shutdown();
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 0u);
    EXPECT_EQ(stream->curPos(), 4u);
}

TEST(DiscoverySetSourceTest, AFailedReadReadsNothing)
{
    initialiseXml();
    const MemoryData data("a", 1, MemoryData::ET_MINUS_ONE);
    const DiscoverySetInputSource source(data, "sysid");
    const std::unique_ptr<xercesc::BinInputStream> stream(source.makeStream());
    XMLByte buffer[16];
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 1u);
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 0u);
    EXPECT_EQ(stream->curPos(), 1u);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
