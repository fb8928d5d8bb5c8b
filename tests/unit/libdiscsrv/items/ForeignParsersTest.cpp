// Parsers of explorer data that come from libraries, good and bad ones. With a bad parser an item
// loses its block and nothing else.

#include <stdexcept>

#include <gtest/gtest.h>

#include "ExplorerParsers.h"
#include "ItemsFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::ReadItems;
using QmTest::readItems;

/// The wrong results that a parser can return.
constexpr int RIGHT = -1;

class FakeData : public virtual ExplorerData
{
  public:
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding) const override
    {
        if (throws)
            throw std::runtime_error("cannot write");
        return out << "parsed";
    }
    bool throws = false;
};

/// Records its events, and misbehaves in the way that the test sets.
class FakeParser : public virtual ExplorerDataParser
{
  public:
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override
    {
        told("<" + TlxString::fromXmlCh(name).utf8() + ">");
        if (TlxString::fromXmlCh(name) == TlxString("skipped"))
            XmlInterface::xmlStartElement(context, name, attributes);
    }
    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override
    {
        ExplorerDataParser::xmlCharacters(context, chars, length);
        told("text " + context->text().utf8());
    }
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override
    {
        const bool blockEnds = context->isEndTag(name);
        told("</" + TlxString::fromXmlCh(name).utf8() + ">");
        if (blockEnds && answerAtEnd != RIGHT)
            return answerAtEnd;
        if (!blockEnds && answerInside != RIGHT)
            return answerInside;
        return blockEnds ? XML_COMPLETE : XML_INSIDE;
    }
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding) const override { return out; }
    XmlObjParseContext* getParseContext(const TlxString& explorerName, const XMLCh* elementName,
                                        const XmlObjParseContext* parent) override
    {
        told("context " + explorerName.utf8() + " " + TlxString::fromXmlCh(elementName).utf8());
        return givesContext ? new XmlObjParseContext(elementName, parent) : nullptr;
    }
    ExplorerData* getExplorerData(XmlObjParseContext* context) override
    {
        EXPECT_NE(context, nullptr);
        told("data");
        if (!givesData)
            return nullptr;
        AutoDereference<FakeData> data(new FakeData);
        data->throws = dataThrows;
        return data.release();
    }
    const char* getExplorerParserName() const override { return "fake"; }

    Lines events;
    std::string throwsAt; ///< the event at which it throws
    int answerAtEnd = RIGHT;
    int answerInside = RIGHT;
    bool givesContext = true;
    bool givesData = true;
    bool dataThrows = false;

  private:
    void told(const std::string& event)
    {
        events.push_back(event);
        if (event == throwsAt)
            throw std::runtime_error("no");
    }
};

struct ForeignParsersTest : testing::Test
{
    ForeignParsersTest() { getExplorerParsers().add("fake", parser.get()); }
    /// A document with a block for the parser, and an item after it.
    static std::string around(const std::string& inner)
    {
        return "<DiscoveredItems><DISCOVERED Name='a'><ExplorerData Name='fake'>" + inner +
               "</ExplorerData><StatusMsg Code='1'/></DISCOVERED><DISCOVERED Name='b'/>"
               "</DiscoveredItems>";
    }
    /// Both items, the first one without data.
    static Lines withoutData()
    {
        return {"<Discovered Name=\"a\"><STATUSMSG Code=\"1\"></STATUSMSG></Discovered>",
                "<Discovered Name=\"b\"></Discovered>"};
    }
    static Lines withData()
    {
        return {"<Discovered Name=\"a\"><STATUSMSG Code=\"1\"></STATUSMSG><ExplorerData "
                "Name=\"fake\">parsed</ExplorerData></Discovered>",
                "<Discovered Name=\"b\"></Discovered>"};
    }

    AutoDereference<FakeParser> parser{new FakeParser};
    AssertionCapture assertions;
    LogCapture log{LOG_LEVEL_FAILURE};
};

TEST_F(ForeignParsersTest, AParserIsFoundByTheNameOfItsBlock)
{
    const ReadItems items = readItems(around("1<x>2</x>"));
    EXPECT_TRUE(items.parsed);
    EXPECT_EQ(items.all(), withData());
    EXPECT_EQ(parser->events, (Lines{"context fake ExplorerData", "text 1", "<x>", "text 12",
                                     "</x>", "</ExplorerData>", "data"}));
    EXPECT_EQ(parser->referenceCount(), 2u); // the references of the repository and of the test
    EXPECT_EQ(log.texts(1), Lines());
    EXPECT_EQ(assertions.texts(), Lines());
}

TEST_F(ForeignParsersTest, OtherBlocksGoToTheDefaultParser)
{
    EXPECT_EQ(readItems("<DiscoveredItems><DISCOVERED><ExplorerData Name='other'>x</ExplorerData>"
                        "</DISCOVERED></DiscoveredItems>")
                  .all(),
              Lines{"<Discovered><ExplorerData Name=\"other\">x</ExplorerData></Discovered>"});
    EXPECT_EQ(parser->events, Lines());
}

TEST_F(ForeignParsersTest, WhatAParserSkipsIsNotItsBlocksEnd)
{
    const ReadItems items = readItems(around("<skipped><x/></skipped><y/>"));
    EXPECT_TRUE(items.parsed);
    EXPECT_EQ(items.all(), withData());
    EXPECT_EQ(parser->events, (Lines{"context fake ExplorerData", "<skipped>", "<y>", "</y>",
                                     "</ExplorerData>", "data"}));
}

TEST_F(ForeignParsersTest, AParserThatThrowsCostsTheItemItsBlock)
{
    const std::vector<std::pair<std::string, std::string>> places = {
        {"context fake ExplorerData", "ExplorerDataParser::getParseContext"},
        {"<x>", "ExplorerDataParser::xmlStartElement"},
        {"text 1", "ExplorerDataParser::xmlCharacters"},
        {"</x>", "ExplorerDataParser::xmlEndElement"},
        {"</ExplorerData>", "ExplorerDataParser::xmlEndElement"},
        {"data", "ExplorerDataParser::getExplorerData"},
    };
    for (const auto& [event, operation] : places) {
        parser->throwsAt = event;
        parser->events.clear();
        log.clear();
        const ReadItems items = readItems(around("<x>1</x><y><x/></y>2<skipped>3</skipped>"));
        EXPECT_TRUE(items.parsed) << event;
        EXPECT_EQ(items.all(), withoutData()) << event;
        EXPECT_EQ(parser->events.back(), event); // the parser gets no further event
        ASSERT_EQ(log.texts(1), Lines{"The parser of the data of fake failed: no"}) << event;
        EXPECT_EQ(log.lines()[0].operation, operation);
    }
    EXPECT_EQ(assertions.texts(), Lines());
}

TEST_F(ForeignParsersTest, AParserThatThrowsAtAnElementItHasSkippedCountsItsElementsRight)
{
    // The parser gets no events of a skipped element. So nothing of it may be counted.
    parser->throwsAt = "<y>";
    const ReadItems items = readItems(around("<skipped><x/></skipped><y><skipped/></y>"));
    EXPECT_EQ(items.all(), withoutData());
}

TEST_F(ForeignParsersTest, AParserWithoutAContextIsReportedAndItsBlockSkipped)
{
    parser->givesContext = false;
    const ReadItems items = readItems(around("<x>1</x>"));
    EXPECT_TRUE(items.parsed);
    EXPECT_EQ(items.all(), withoutData());
    EXPECT_EQ(assertions.texts(), Lines{"ctxt->m_subContext"});
    EXPECT_EQ(parser->events, Lines{"context fake ExplorerData"});
}

TEST_F(ForeignParsersTest, ABlockThatYieldsNothingIsOver)
{
    parser->answerAtEnd = XML_NOTHING;
    EXPECT_EQ(readItems(around("<x/>")).all(), withoutData());
    EXPECT_EQ(parser->events.back(), "</ExplorerData>");
    EXPECT_EQ(assertions.texts(), Lines());
}

TEST_F(ForeignParsersTest, ABlockThatYieldsNothingLeavesTheDataOfAnEarlierOne)
{
    parser->answerAtEnd = XML_NOTHING;
    EXPECT_EQ(readItems("<DiscoveredItems><DISCOVERED><ExplorerData Name='e'>x</ExplorerData>"
                        "<ExplorerData Name='fake'/></DISCOVERED></DiscoveredItems>")
                  .all(),
              Lines{"<Discovered><ExplorerData Name=\"e\">x</ExplorerData></Discovered>"});
}

TEST_F(ForeignParsersTest, AParserWithoutDataReplacesThatOfAnEarlierOneByNothing)
{
    parser->givesData = false;
    const ReadItems items =
        readItems("<DiscoveredItems><DISCOVERED><ExplorerData Name='e'>x</ExplorerData>"
                  "<ExplorerData Name='fake'/></DISCOVERED></DiscoveredItems>");
    EXPECT_EQ(items.all(), Lines{"<Discovered></Discovered>"});
    EXPECT_EQ(items.discovered(0)->getExplorerName(), TlxString());
}

TEST_F(ForeignParsersTest, AnUnknownResultIsReported)
{
    parser->answerAtEnd = 7;
    EXPECT_EQ(readItems(around("")).all(), withoutData());
    EXPECT_EQ(assertions.texts(), Lines{"SHOULD_NOT_GET_HERE"});
    parser->answerAtEnd = RIGHT;
    parser->answerInside = 7;
    EXPECT_EQ(readItems(around("<x/>")).all(), withData());
    EXPECT_EQ(assertions.texts(), Lines(2, "SHOULD_NOT_GET_HERE"));
}

TEST_F(ForeignParsersTest, ABlockEndsAtItsEndTagWhateverItsParserSays)
{
    parser->answerAtEnd = XML_INSIDE;
    EXPECT_EQ(readItems(around("<x/>")).all(), withoutData());
    EXPECT_EQ(assertions.texts(), Lines{"SHOULD_NOT_GET_HERE"});
}

TEST_F(ForeignParsersTest, ABlockThatItsParserEndsEarlyIsTheItemsEnd)
{
    parser->answerInside = XML_COMPLETE;
    const ReadItems items = readItems(around("<x/>"));
    EXPECT_TRUE(items.parsed);
    EXPECT_EQ(items.all(), Lines{"<Discovered Name=\"a\"><ExplorerData Name=\"fake\">parsed"
                                 "</ExplorerData></Discovered>"});
    EXPECT_EQ(assertions.texts(), Lines{"ctxt->isEndTag(name)"});
}

TEST_F(ForeignParsersTest, DataThatThrowsWhenItIsWrittenLeavesAnEmptyBlock)
{
    parser->dataThrows = true;
    const ReadItems items = readItems(around(""));
    EXPECT_EQ(items.written(0), "<Discovered Name=\"a\"><STATUSMSG Code=\"1\"></STATUSMSG>"
                                "<ExplorerData Name=\"fake\"></ExplorerData></Discovered>");
    EXPECT_EQ(log.texts(1), Lines{"The data of fake failed: cannot write"});
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
