// Discovered-items documents that are hostile or too large.

#include "DiscoveredItems.h"

#include <gtest/gtest.h>

#include "ItemsFixture.h"
#include "support/Capture.h"
#include "support/TemporaryDirectory.h"
#include "support/Text.h"

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
using QmTest::repeated;
using QmTest::UNKNOWN;

/// The reason in the log why a document failed. Expects that it fails.
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

TEST(ItemsLimitsTest, EntityBombsFail)
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

TEST(ItemsLimitsTest, ExternalEntitiesAreNotRead)
{
    const QmTest::TemporaryDirectory directory;
    const std::string secret = (directory.path() / "secret").string();
    QmTest::writeFile(secret, "secret");
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

TEST(ItemsLimitsTest, ElementsNestedTooDeeplyFailAndTheItemsBeforeAreKept)
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

TEST(ItemsLimitsTest, TenMebibytesOfTextComeThrough)
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

TEST(ItemsLimitsTest, AHundredThousandItemsComeThrough)
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

TEST(ItemsLimitsTest, OneItemTooManyEndsTheDocument)
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

/// Expects that the parse ends at the first fault above the bound.
/// @param faults the log lines of the faults
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

TEST(ItemsLimitsTest, AThousandUnknownElementsAreSkippedOneMoreEndsTheDocument)
{
    const std::string item = "<DISCOVERED Name='a'/>";
    const std::string written = "<Discovered Name=\"a\"></Discovered>";
    for (int twice = 0; twice < 2; ++twice) { // each document has its own count
        const LogCapture log(LOG_LEVEL_FAILURE);
        const ReadItems items = readItems(document(item + repeated(1000, "<x/>") + item));
        EXPECT_TRUE(items.parsed);
        EXPECT_EQ(items.all(), Lines(2, written));
        EXPECT_EQ(log.texts(1), Lines(1000, UNKNOWN));
    }
    expectEndAtFault(document(item + repeated(1001, "<x/>") + item), Lines(1001, UNKNOWN),
                     Lines{written});
}

TEST(ItemsLimitsTest, UnknownElementsOfTheDocumentAndOfItsItemsCountTogether)
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

TEST(ItemsLimitsTest, RefusedDescriptionsCountWithTheUnknownElements)
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
        EXPECT_TRUE(
            faults[400].starts_with("Refused a query description, because its query is wrong: "));
        EXPECT_EQ(faults[999], "A part of a query description is not kept; fields left "
                               "out: 1, the first \"\": its name is not a field name");
    }
    for (const auto& [fault, line] :
         {std::pair{noQuery, faults[400]}, std::pair{noField, faults[999]}}) {
        Lines all = faults;
        all.push_back(line);
        // The description is complete even without its field.
        expectEndAtFault(filterData(text + fault), all,
                         Lines(fault == noField ? 301 : 300, written[0]));
    }
}

TEST(ItemsLimitsTest, BlocksThatEndEarlyCountAsFaults)
{
    // Each of them is followed by the element of the document. Otherwise the next one would not be
    // an item.
    const std::string early = "<DISCOVERED><ExplorerData><ExplorerData></ExplorerData>"
                              "</ExplorerData></DISCOVERED><DiscoveredItems/>";
    const AssertionCapture assertions;
    const LogCapture log(LOG_LEVEL_FAILURE);
    const ReadItems items = readItems("<DiscoveredItems>" + repeated(2000, early));
    EXPECT_FALSE(items.parsed);
    EXPECT_LE(assertions.texts().size() + log.texts(1).size(), 1001u + 3);
    EXPECT_TRUE(log.texts(1)[log.texts(1).size() - 3].ends_with(TOO_MANY_FAULTS));
}

TEST(ItemsLimitsTest, ABlockOfSixteenMebibytesIsKeptOneByteMoreEndsTheDocument)
{
    const std::string text((16u << 20) - std::string("<a></a>").size(), 'x');
    {
        const ReadItems items = readItems(block("<a>" + text + "</a>"));
        EXPECT_TRUE(items.parsed);
        EXPECT_TRUE(dataOf(items) == "<a>" + text + "</a>");
    }
    // The bound holds for the kept text, which may be longer than the text in the document.
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
    const std::string COMMENT = "<!--" + std::string(1000, ' ') + "-->"; // comments are not kept
    mutable std::size_t m_read = 0;
};

TEST(ItemsLimitsTest, ADocumentThatDoesNotEndEndsAtItsBound)
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

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
