// Discovered-items documents of other tools: pieces, encodings, comments and entities.

#include "DiscoveredItems.h"

#include <gtest/gtest.h>

#include "ItemsFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::document;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::MemoryData;
using QmTest::ReadItems;
using QmTest::readItems;
using QmTest::readSound;
using QmTest::UNKNOWN;

TEST(ItemsEncodingTest, TextIsWholeInPiecesOfEverySize)
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

TEST(ItemsEncodingTest, TextIsWholeAcrossTheParsersOwnBuffers)
{
    std::string text;
    for (int i = 0; i < 30000; ++i)
        text += std::to_string(i) + "\xC3\xA9&amp;";
    const ReadItems items =
        readSound(document("<DISCOVERED><StatusMsg>" + text + "</StatusMsg></DISCOVERED>"));
    EXPECT_EQ(items.written(0),
              "<Discovered><STATUSMSG Code=\"0\">" + text + "</STATUSMSG></Discovered>");
}

TEST(ItemsEncodingTest, CommentsAndInstructionsAreSkippedAndSectionsAreText)
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

TEST(ItemsEncodingTest, NamespaceDeclarationsAreIgnoredAndPrefixedElementsUnknown)
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

TEST(ItemsEncodingTest, ADocumentIsReadInTheEncodingThatItDeclares)
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

TEST(ItemsEncodingTest, ADocumentEndsAtBytesThatItsEncodingForbids)
{
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems(document("<DISCOVERED Name='a'/><DISCOVERED Name='\xE9'/>"));
    EXPECT_FALSE(items.parsed);
    EXPECT_LE(items.items.size(), 1u); // the parser decodes ahead of its events
    EXPECT_EQ(log.texts(1).back(), "Failed to parse discovery");
}

TEST(ItemsEncodingTest, CharacterReferencesAndSmallEntitiesAreText)
{
    EXPECT_EQ(readSound("<!DOCTYPE DiscoveredItems [<!ENTITY e 'x&#38;amp;'><!ENTITY i "
                        "\"<DISCOVERED Name='b'/>\">]><DiscoveredItems><DISCOVERED Name='&#97;"
                        "&e;'/>&i;</DiscoveredItems>")
                  .all(),
              (Lines{"<Discovered Name=\"ax&amp;\"></Discovered>",
                     "<Discovered Name=\"b\"></Discovered>"}));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
