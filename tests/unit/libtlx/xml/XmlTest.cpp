#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include <tlx/Xml.h>

#include "support/Capture.h"
#include "support/XmlRecorder.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::LogCapture;
using QmTest::PiecewiseSource;
using QmTest::XmlRecorder;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Utf16 = std::basic_string<XMLCh>;

Utf16 utf16(const char* text)
{
    return TlxString(text).toXmlCh();
}

std::string utf16Bytes(const std::string& utf8, bool bigEndian, bool mark)
{
    std::string bytes;
    for (const XMLCh unit : TlxString((mark ? "\xEF\xBB\xBF" : "") + utf8).toXmlCh()) {
        const char high = static_cast<char>(unit >> 8);
        const char low = static_cast<char>(unit & 0xFF);
        bytes += bigEndian ? high : low;
        bytes += bigEndian ? low : high;
    }
    return bytes;
}

/// Expects that the text parses without a log line. Returns the events.
std::string eventsOf(const std::string& text, const char* codePage = nullptr)
{
    LogCapture log;
    XmlRecorder document(codePage);
    EXPECT_TRUE(document.parseBuffer(text)) << text.substr(0, 200);
    EXPECT_THAT(log.lines(), IsEmpty());
    return document.m_events;
}

TEST(XmlContextTest, TheEndTagIsComparedToTheLetter)
{
    const XmlObjParseContext context(utf16("Name").c_str());
    EXPECT_TRUE(context.isEndTag(utf16("Name").c_str()));
    EXPECT_FALSE(context.isEndTag(utf16("NAME").c_str()));
    EXPECT_FALSE(context.isEndTag(utf16("Name2").c_str()));
    EXPECT_FALSE(context.isEndTag(nullptr));
    EXPECT_TRUE(XmlObjParseContext(nullptr).isEndTag(utf16("").c_str()));
}

TEST(XmlContextTest, TagsAreComparedWithAndWithoutCase)
{
    const Utf16 name = utf16("DisCovered");
    EXPECT_TRUE(XmlObjParseContext::cmptag(name.c_str(), "DISCOVERED"));
    EXPECT_TRUE(XmlObjParseContext::cmptag(name.c_str(), "discovered"));
    EXPECT_FALSE(XmlObjParseContext::cmptag(name.c_str(), "DISCOVEREDX"));
    EXPECT_FALSE(XmlObjParseContext::cmptag(name.c_str(), "DISCOVERE"));
    EXPECT_FALSE(XmlObjParseContext::cmptag(nullptr, "X"));
    EXPECT_FALSE(XmlObjParseContext::cmptag(name.c_str(), nullptr));
    EXPECT_TRUE(XmlObjParseContext::isTag(name.c_str(), "DisCovered"));
    EXPECT_FALSE(XmlObjParseContext::isTag(name.c_str(), "Discovered"));
    EXPECT_FALSE(XmlObjParseContext::isTag(nullptr, "X"));
    EXPECT_FALSE(XmlObjParseContext::isTag(name.c_str(), nullptr));
}

TEST(XmlContextTest, TextIsCollectedUntilCleared)
{
    XmlObjParseContext context(utf16("Name").c_str());
    EXPECT_TRUE(context.text().empty());
    const Utf16 smile = utf16("\xF0\x9F\x98\x80");
    context.appendText(utf16("ab").c_str(), 2);
    context.appendText(smile.c_str(), 1); // a pair cut in two
    context.appendText(smile.c_str() + 1, 1);
    context.appendText(nullptr, 3);
    EXPECT_EQ(context.text(), TlxString("ab\xF0\x9F\x98\x80"));
    context.clearText();
    EXPECT_TRUE(context.text().empty());
}

TEST(XmlContextTest, TextThatOnlyXml11CarriesIsReplaced)
{
    XmlObjParseContext context(utf16("Name").c_str());
    const Utf16 text = {'a', 0x01, '\t', '\n', '\r', ' ', 0x1F, 0x7F, 0x85, 0xFFFE, 0xFFFF, 0xFFFD};
    context.appendText(text.c_str(), text.size());
    EXPECT_EQ(context.text(), TlxString("a\xEF\xBF\xBD\t\n\r \xEF\xBF\xBD\x7F\xC2\x85"
                                        "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"));
}

TEST(XmlContextTest, SkippingIsSharedWithTheParent)
{
    const XmlObjParseContext parent(utf16("Outer").c_str());
    const XmlObjParseContext other(utf16("Outer").c_str());
    {
        const XmlObjParseContext child(utf16("Inner").c_str(), &parent);
        child.skipEnter();
        EXPECT_TRUE(parent.isSkipping());
        EXPECT_FALSE(other.isSkipping());
    }
    EXPECT_TRUE(parent.isSkipping());
    parent.skipLeave();
    EXPECT_FALSE(parent.isSkipping());
}

TEST(XmlInterfaceTest, TheBaseCollectsSkipsAndWritesNothing)
{
    XmlInterface base;
    XmlObjParseContext context(utf16("Name").c_str());
    base.xmlCharacters(&context, utf16("abc").c_str(), 2);
    base.xmlCharacters(nullptr, utf16("abc").c_str(), 2);
    EXPECT_EQ(context.text(), TlxString("ab"));
    EXPECT_EQ(base.xmlEndElement(&context, utf16("Name").c_str()), XML_COMPLETE);
    EXPECT_EQ(base.xmlEndElement(&context, utf16("Other").c_str()), XML_INSIDE);
    std::ostringstream out;
    EXPECT_EQ(&base.writeXml(out, XmlStr::XE_UTF8), &out);
    EXPECT_EQ(out.str(), "");
}

TEST(XmlTest, EventsInOrder)
{
    EXPECT_EQ(eventsOf("<Doc><a x=\"1\" y='&lt;2'>t&amp;u<![CDATA[<v>]]></a><b/></Doc>"),
              "<Doc><a x=1 y=<2>t&u<v></a><b></b></Doc>");
}

TEST(XmlTest, CommentsAndInstructionsAreNoEvents)
{
    EXPECT_EQ(eventsOf("<!--c--><Doc>a<!-- c -->b<?target data?>c</Doc>"), "<Doc>abc</Doc>");
}

TEST(XmlTest, NamesWithColonsArePlainNames)
{
    EXPECT_EQ(eventsOf("<Doc><p:a p:b='1'/></Doc>"), "<Doc><p:a p:b=1></p:a></Doc>");
}

TEST(XmlTest, UnknownElementsAreSkippedWhole)
{
    EXPECT_EQ(eventsOf("<Doc>1<unknown>x<a>y<unknown/>z</a><a/>t</unknown>2<b>3</b></Doc>"),
              "<Doc>1<unknown>2<b>3</b></Doc>");
    EXPECT_EQ(eventsOf("<Doc><unknown/><unknown2/><a/></Doc>"),
              "<Doc><unknown><unknown2><a></a></Doc>");
    EXPECT_EQ(eventsOf("<unknown>x<a/></unknown>"), "<unknown>");
}

TEST(XmlTest, AnUnknownElementIsCountedOnceHoweverManyObjectsHandItDown)
{
    struct Twice : XmlRecorder
    {
        void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                             AttributeList& attributes) override
        {
            XmlRecorder::xmlStartElement(context, name, attributes);
            if (XmlObjParseContext::isTag(name, "unknown")) {
                XmlObjParseContext child(name, context);
                XmlInterface::xmlStartElement(&child, name, attributes);
            }
        }
    } document;
    EXPECT_TRUE(document.parseBuffer("<Doc><unknown><x/></unknown><a/></Doc>"));
    EXPECT_EQ(document.m_events, "<Doc><unknown><a></a></Doc>");
}

TEST(XmlTest, TheBaseDocumentSkipsAll)
{
    LogCapture log;
    XmlDocumentInterface document(nullptr, "Doc");
    EXPECT_TRUE(document.parseBuffer("<Doc><a>t</a></Doc>"));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(XmlTest, TheContextIsMadeForTheDocumentsName)
{
    struct Document : XmlRecorder
    {
        XmlObjParseContext* getObjParseContext(const XMLCh* name) override
        {
            m_name = TlxString::fromXmlCh(name);
            return XmlRecorder::getObjParseContext(name);
        }
        TlxString m_name;
    } document;
    EXPECT_TRUE(document.parseBuffer("<Other/>"));
    EXPECT_EQ(document.m_name, TlxString("Doc"));
}

TEST(XmlTest, Encodings)
{
    const std::string text = "<Doc>\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80</Doc>";
    EXPECT_EQ(eventsOf(text), text);
    EXPECT_EQ(eventsOf("\xEF\xBB\xBF" + text), text);
    EXPECT_EQ(eventsOf("<?xml version=\"1.0\" encoding=\"UTF-8\"?>" + text), text);
    for (const bool bigEndian : {false, true}) {
        EXPECT_EQ(eventsOf(utf16Bytes(text, bigEndian, true)), text);
        const std::string declaration = "<?xml version=\"1.0\" encoding=\"UTF-16\"?>";
        EXPECT_EQ(eventsOf(utf16Bytes(declaration + text, bigEndian, true)), text);
        EXPECT_EQ(eventsOf(utf16Bytes(declaration + text, bigEndian, false)), text);
    }
    EXPECT_EQ(eventsOf("<?xml version='1.0' encoding='ISO-8859-1'?><Doc>\xE9</Doc>"),
              "<Doc>\xC3\xA9</Doc>");
}

TEST(XmlTest, TheCodePageHoldsForDocumentsWithoutAnEncoding)
{
    const std::string accented = "<Doc>\xC3\xA9</Doc>";
    EXPECT_EQ(eventsOf("<Doc>\xE9</Doc>", "ISO-8859-1"), accented);
    EXPECT_EQ(eventsOf("<?xml version='1.0'?><Doc>\xE9</Doc>", "ISO-8859-1"), accented);
    EXPECT_EQ(eventsOf("<?xml version='1.0' encoding='UTF-8'?>" + accented, "ISO-8859-1"),
              accented);
    EXPECT_EQ(eventsOf("\xEF\xBB\xBF" + accented, "ISO-8859-1"), accented);
    EXPECT_EQ(eventsOf(utf16Bytes(accented, false, true), "ISO-8859-1"), accented);
    EXPECT_EQ(eventsOf(accented, "UTF-8"), accented);
}

TEST(XmlTest, WhatIsWrittenReadsBackInEveryEncoding)
{
    const std::string text = "<\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80> & \"x\" 'y' \r\n\t ]]>";
    for (const auto encoding : {XmlStr::XE_UTF8, XmlStr::XE_ASCII}) {
        std::ostringstream out;
        XmlStr::xmlProlog(out, encoding);
        out << "<Doc";
        XmlStr::appendAttribute(out, "a", text, encoding);
        out << ">" << XmlStr(text, encoding);
        XmlStr::appendEnd(out, "Doc");
        EXPECT_EQ(eventsOf(out.str()), "<Doc a=" + text + ">" + text + "</Doc>") << encoding;
    }
}

TEST(XmlTest, TextInPiecesComesOutWhole)
{
    const std::string body =
        "<Doc><a>caf\xC3\xA9 \xF0\x9F\x98\x80 &amp; " + std::string(5000, 'x') + "</a></Doc>";
    const std::string expected =
        "<Doc><a>caf\xC3\xA9 \xF0\x9F\x98\x80 & " + std::string(5000, 'x') + "</a></Doc>";
    for (const std::size_t piece : {1, 3, 511, 512, 513}) {
        for (const std::string& text : {body, "\xEF\xBB\xBF" + body, utf16Bytes(body, true, true),
                                        utf16Bytes(body, false, true)}) {
            XmlRecorder document;
            PiecewiseSource source(text, piece);
            EXPECT_TRUE(document.parse(source));
            EXPECT_EQ(document.m_events, expected) << piece;
        }
        XmlRecorder document;
        PiecewiseSource source("<?xml version='1.0' encoding='ISO-8859-1'?><Doc>\xE9</Doc>", piece);
        EXPECT_TRUE(document.parse(source));
        EXPECT_EQ(document.m_events, "<Doc>\xC3\xA9</Doc>") << piece;
    }
}

TEST(XmlTest, LargeTextsComeInSeveralCalls)
{
    const std::string text(20u << 20, 'x');
    struct Counter : XmlDocumentInterface
    {
        Counter() : XmlDocumentInterface(nullptr, "Doc") {}
        void xmlStartElement(XmlObjParseContext*, const XMLCh*, AttributeList&) override {}
        void xmlCharacters(XmlObjParseContext*, const XMLCh*, unsigned long length) override
        {
            ++m_calls;
            m_length += length;
        }
        unsigned m_calls = 0;
        std::size_t m_length = 0;
    } document;
    EXPECT_TRUE(document.parseBuffer("<Doc>" + text + "</Doc>"));
    EXPECT_EQ(document.m_length, text.size());
    EXPECT_GT(document.m_calls, 1u);
}

TEST(XmlTest, AReadThatFailsIsTheEnd)
{
    for (const auto end :
         {PiecewiseSource::ET_PLAIN, PiecewiseSource::ET_MINUS_ONE, PiecewiseSource::ET_THROWS}) {
        XmlRecorder complete;
        PiecewiseSource whole("<Doc>" + std::string(2000, 'x') + "</Doc>", 100, end);
        EXPECT_TRUE(complete.parse(whole)) << end;
        LogCapture log;
        XmlRecorder cut;
        PiecewiseSource part("<Doc>" + std::string(2000, 'x'), 100, end);
        const auto parsed = cut.parseOrExplain(part);
        ASSERT_FALSE(parsed) << end;
        EXPECT_EQ(log.texts(1), std::vector<std::string>{parsed.error().utf8()}) << end;
        EXPECT_EQ(log.lines().size(), 1u) << end;
    }
}

TEST(XmlTest, AParseInsideAParse)
{
    XmlRecorder inner;
    XmlRecorder outer;
    bool innerParsed = false;
    outer.m_atStart = [&] {
        inner.m_events.clear();
        innerParsed = inner.parseBuffer("<Doc><in>2</in></Doc>");
    };
    for (int round = 0; round < 3; ++round) {
        outer.m_events.clear();
        EXPECT_TRUE(outer.parseBuffer("<Doc><out>1</out>x</Doc>"));
        EXPECT_TRUE(innerParsed);
        EXPECT_EQ(outer.m_events, "<Doc><out>1</out>x</Doc>");
        EXPECT_EQ(inner.m_events, "<Doc><in>2</in></Doc>");
    }
}

TEST(XmlTest, ADocumentThatParsesItselfInside)
{
    XmlRecorder document;
    int depth = 0;
    document.m_atStart = [&] {
        if (depth < 6) {
            ++depth;
            EXPECT_TRUE(document.parseBuffer("<Doc/>"));
        }
    };
    EXPECT_TRUE(document.parseBuffer("<Doc/>"));
    EXPECT_EQ(depth, 6);
}

TEST(XmlTest, AFailureLeavesNothingBehindForTheNextParse)
{
    XmlRecorder document;
    for (int round = 0; round < 3; ++round) {
        LogCapture log;
        EXPECT_FALSE(document.parseBuffer("<Doc><unknown><a>"));
        document.m_events.clear();
        EXPECT_TRUE(document.parseBuffer("<Doc>t</Doc>"));
        EXPECT_EQ(document.m_events, "<Doc>t</Doc>");
    }
}

TEST(XmlTest, ADocumentOfAnotherVersionDoesNotDecideHowTheNextIsRead)
{
    const std::string nextLine = "<Doc>\xC2\x85</Doc>"; // the end of a line in version 1.1 only
    EXPECT_EQ(eventsOf("<?xml version='1.1'?>" + nextLine), "<Doc>\n</Doc>");
    EXPECT_EQ(eventsOf(nextLine), nextLine);
    EXPECT_EQ(eventsOf("<?xml version='1.1'?><Doc>&#1;</Doc>"), "<Doc>\xEF\xBF\xBD</Doc>");
    LogCapture log;
    XmlRecorder document;
    EXPECT_FALSE(document.parseBuffer("<Doc>&#1;</Doc>"));
}

TEST(XmlTest, ThreadsParseBesideEachOther)
{
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&wrong, i] {
            const std::string text = "<Doc><a>" + std::to_string(i) + "</a></Doc>";
            for (int round = 0; round < 200; ++round) {
                XmlRecorder document;
                if (!document.parseBuffer(text) || document.m_events != text)
                    ++wrong;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST(XmlTest, AttributesByName)
{
    struct Document : XmlDocumentInterface
    {
        Document() : XmlDocumentInterface(nullptr, "Doc") {}
        void xmlStartElement(XmlObjParseContext*, const XMLCh*, AttributeList& attributes) override
        {
            m_name = xmlAttribute(attributes, "Name");
            m_other = xmlAttribute(attributes, "name");
        }
        TlxString m_name, m_other = "unset";
    } document;
    EXPECT_TRUE(document.parseBuffer("<Doc Name='caf\xC3\xA9'/>"));
    EXPECT_EQ(document.m_name, TlxString("caf\xC3\xA9"));
    EXPECT_EQ(document.m_other, TlxString());
}

} // namespace
