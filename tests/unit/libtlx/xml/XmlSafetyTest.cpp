// Documents that nobody means well with.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <tlx/DomHandler.h>
#include <tlx/Xml.h>

#include "support/Capture.h"
#include "support/TemporaryDirectory.h"
#include "support/XmlRecorder.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::LogCapture;
using QmTest::XmlRecorder;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

/// Expects that the text is refused, with one line, and answers the line's text.
std::string refusalOf(const std::string& text, XmlDocumentInterface& document)
{
    LogCapture log;
    EXPECT_FALSE(document.parseBuffer(text)) << text.substr(0, 200);
    const auto lines = log.lines();
    EXPECT_EQ(lines.size(), 1u);
    if (lines.size() != 1)
        return {};
    EXPECT_EQ(lines[0].level, LOG_LEVEL_FAILURE);
    EXPECT_EQ(lines[0].originator, LOG_ORIGINATOR_PLATFORM);
    EXPECT_EQ(lines[0].operation, "XmlDocumentInterface::parse");
    EXPECT_EQ(lines[0].source, "../Xml");
    return lines[0].text;
}

std::string refusalOf(const std::string& text)
{
    XmlRecorder document;
    return refusalOf(text, document);
}

int domParse(const std::string& text)
{
    LogCapture log;
    TlxDOMHandler handler(text.c_str());
    const int result = handler.parse();
    EXPECT_THAT(log.lines(), IsEmpty());
    return result;
}

std::string nested(unsigned depth, const char* innermost = "")
{
    std::string text;
    for (unsigned i = 0; i < depth; ++i)
        text += "<a>";
    text += innermost;
    for (unsigned i = 0; i < depth; ++i)
        text += "</a>";
    return text;
}

/// Entities of which each holds ten of the one before.
std::string bomb(const char* use)
{
    std::string text = "<!DOCTYPE Doc [<!ENTITY e0 \"xxxxxxxxxx\">";
    for (int i = 1; i < 10; ++i) {
        text += "<!ENTITY e" + std::to_string(i) + " \"";
        for (int k = 0; k < 10; ++k)
            text += "&e" + std::to_string(i - 1) + ";";
        text += "\">";
    }
    return text + "]>" + use;
}

TEST(XmlSafetyTest, AMalformedDocumentIsNamedWithItsPlace)
{
    EXPECT_EQ(refusalOf("<Doc>\n <a></b></Doc>"),
              "Failed to parse the document Doc: line 2, column 7: expected end of tag 'a'");
    EXPECT_EQ(refusalOf("<Doc>"),
              "Failed to parse the document Doc: line 1, column 6: input ended before all started "
              "tags were ended; last tag started is 'Doc'");
    EXPECT_THAT(refusalOf(""), StartsWith("Failed to parse the document Doc: line "));
    EXPECT_THAT(refusalOf("no document"), StartsWith("Failed to parse the document Doc: line 1,"));
    EXPECT_THAT(refusalOf("<Doc/><Doc/>"), StartsWith("Failed to parse the document Doc: line 1,"));
    EXPECT_THAT(refusalOf(std::string("<Doc>\0</Doc>", 12)),
                StartsWith("Failed to parse the document Doc: line 1,"));
    EXPECT_THAT(refusalOf("<Doc a='1' a='2'/>"),
                StartsWith("Failed to parse the document Doc: line 1,"));
}

TEST(XmlSafetyTest, EventsBeforeTheFailureStayDone)
{
    XmlRecorder document;
    refusalOf("<Doc><a>1</a><b>", document);
    EXPECT_EQ(document.m_events, "<Doc><a>1</a><b>");
}

TEST(XmlSafetyTest, BytesThatAreNotInTheEncodingFail)
{
    for (const char* text : {"<Doc>\xFF</Doc>", "<Doc>\xC3(</Doc>", "<Doc>\xC3",
                             "<?xml version='1.0' encoding='none-such'?><Doc/>"})
        EXPECT_THAT(refusalOf(text), StartsWith("Failed to parse the document Doc: line "));
    XmlRecorder unknownCodePage("none-such");
    EXPECT_THAT(refusalOf("<Doc/>", unknownCodePage),
                StartsWith("Failed to parse the document Doc: line "));
}

TEST(XmlSafetyTest, DepthIsBounded)
{
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer(nested(XML_MAX_DEPTH)));
    EXPECT_TRUE(document.parseBuffer(nested(XML_MAX_DEPTH - 1, "<b/><b/><b></b>")));
    EXPECT_EQ(domParse(nested(XML_MAX_DEPTH)), 0);
    EXPECT_EQ(refusalOf(nested(XML_MAX_DEPTH + 1)),
              "Failed to parse the document Doc: line 1, column 772: elements are nested deeper "
              "than 256");
    EXPECT_EQ(refusalOf(nested(XML_MAX_DEPTH, "<b/>")),
              "Failed to parse the document Doc: line 1, column 773: elements are nested deeper "
              "than 256");
    EXPECT_EQ(domParse(nested(XML_MAX_DEPTH, "<b/>")), 1);
    // Also inside what is skipped.
    EXPECT_NE(refusalOf("<unknown>" + nested(100000)), "");
    EXPECT_EQ(domParse(nested(100000)), 1);
}

TEST(XmlSafetyTest, FewEntitiesAreFine)
{
    const std::string text = "<!DOCTYPE Doc [<!ENTITY e \"<b>x</b>\">]><Doc a='&amp;'>&e;&e;</Doc>";
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer(text));
    EXPECT_EQ(document.m_events, "<Doc a=&><b>x</b><b>x</b></Doc>");
    EXPECT_EQ(domParse(text), 0);
}

TEST(XmlSafetyTest, TheFixedEntitiesAndCharacterReferencesAreNotCounted)
{
    std::string text = "<Doc>";
    std::string expected = "<Doc>";
    for (unsigned i = 0; i < 10 * XML_MAX_ENTITY_EXPANSIONS; ++i) {
        text += "&amp;&#65;";
        expected += "&A";
    }
    struct Collector : XmlDocumentInterface
    {
        Collector() : XmlDocumentInterface(nullptr, "Doc") {}
        void xmlStartElement(XmlObjParseContext*, const XMLCh*, AttributeList&) override {}
        int xmlEndElement(XmlObjParseContext* context, const XMLCh*) override
        {
            m_text = context->text().utf8();
            return XML_COMPLETE;
        }
        std::string m_text;
    } document;
    EXPECT_TRUE(document.parseBuffer(text + "</Doc>"));
    EXPECT_EQ("<Doc>" + document.m_text, expected);
}

TEST(XmlSafetyTest, EntityExpansionIsBounded)
{
    for (const char* use : {"<Doc>&e9;</Doc>", "<Doc a='&e9;'/>"}) {
        EXPECT_THAT(refusalOf(bomb(use)), StartsWith("Failed to parse the document Doc: line 1, "));
        EXPECT_EQ(domParse(bomb(use)), 1) << use;
    }
    // The bound is the document's, not the single entity's.
    std::string many = "<!DOCTYPE Doc [<!ENTITY e \"x\">]><Doc>";
    for (unsigned i = 0; i < XML_MAX_ENTITY_EXPANSIONS; ++i)
        many += "&e;";
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer(many + "</Doc>"));
    EXPECT_TRUE(document.parseBuffer(many + "</Doc>")); // counted anew
    EXPECT_NE(refusalOf(many + "&e;</Doc>"), "");
    EXPECT_EQ(domParse(many + "</Doc>"), 0);
    EXPECT_EQ(domParse(many + "&e;</Doc>"), 1);
}

TEST(XmlSafetyTest, AnEntityThatHoldsItselfFails)
{
    const std::string text =
        "<!DOCTYPE Doc [<!ENTITY a \"&b;\"><!ENTITY b \"&a;\">]><Doc>&a;</Doc>";
    EXPECT_NE(refusalOf(text), "");
    EXPECT_EQ(domParse(text), 1);
}

TEST(XmlSafetyTest, ALongEntityIsRefused)
{
    const auto text = [](std::size_t length) {
        return "<!DOCTYPE Doc [<!ENTITY e \"" + std::string(length, 'x') + "\">]><Doc>&e;</Doc>";
    };
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer(text(4096)));
    EXPECT_EQ(refusalOf(text(4097)), "Failed to parse the document Doc: line 1, column 4127: the "
                                     "text of the entity e is longer than 4096");
    EXPECT_EQ(domParse(text(4097)), 1);
}

TEST(XmlSafetyTest, OtherDeclarationsThanEntitiesAndElementsAreRefused)
{
    const std::string parameter = "<!DOCTYPE Doc [<!ENTITY % p \"\"> %p;]><Doc/>";
    EXPECT_EQ(refusalOf(parameter), "Failed to parse the document Doc: line 1, column 32: the "
                                    "parameter entity p is not allowed");
    EXPECT_EQ(domParse(parameter), 1);
    for (const char* kind : {"CDATA 'x'", "CDATA #IMPLIED"}) {
        const std::string attribute =
            "<!DOCTYPE Doc [<!ATTLIST Doc a " + std::string(kind) + ">]><Doc/>";
        EXPECT_THAT(refusalOf(attribute),
                    AllOf(StartsWith("Failed to parse the document Doc: line 1, column "),
                          EndsWith(": the declaration of the attribute a is not allowed")));
        EXPECT_EQ(domParse(attribute), 1);
    }
    EXPECT_THAT(
        refusalOf("<!DOCTYPE Doc [<!NOTATION " + std::string(1000, 'n') + " SYSTEM 'x'>]><Doc/>"),
        EndsWith(": the notation " + std::string(64, 'n') + " is not allowed"));
    const std::string notation = "<!DOCTYPE Doc [<!NOTATION n SYSTEM 'x'>]><Doc/>";
    EXPECT_THAT(refusalOf(notation),
                AllOf(StartsWith("Failed to parse the document Doc: line 1, column "),
                      EndsWith(": the notation n is not allowed")));
    EXPECT_EQ(domParse(notation), 1);
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer("<!DOCTYPE Doc [<!ELEMENT Doc ANY>]><Doc a='1'>t</Doc>"));
    EXPECT_EQ(document.m_events, "<Doc a=1>t</Doc>");
}

TEST(XmlSafetyTest, ATreeHasABoundedNumberOfNodes)
{
    const auto elements = [](unsigned count) {
        std::string text = "<Doc>";
        for (unsigned i = 1; i < count; ++i)
            text += "<e/>";
        return text + "</Doc>";
    };
    EXPECT_EQ(domParse(elements(10000)), 0);
    EXPECT_EQ(domParse(elements(10000)), 0); // counted anew
    EXPECT_EQ(domParse(elements(10001)), 1);
    std::string attributes = "<Doc";
    std::string entities = "<!DOCTYPE Doc [";
    for (unsigned i = 0; i < 10000; ++i) {
        attributes += " a" + std::to_string(i) + "=''";
        entities += "<!ENTITY e" + std::to_string(i) + " ''>";
    }
    EXPECT_EQ(domParse(attributes + "/>"), 1);
    EXPECT_EQ(domParse(entities + "]><Doc/>"), 1);
}

/// Reads anything, keeps the text of the last element.
struct TextReader : XmlDocumentInterface
{
    TextReader() : XmlDocumentInterface(nullptr, "Doc") {}
    void xmlStartElement(XmlObjParseContext* context, const XMLCh*, AttributeList&) override
    {
        context->clearText();
    }
    int xmlEndElement(XmlObjParseContext* context, const XMLCh*) override
    {
        m_text = context->text().utf8();
        return XML_INSIDE;
    }
    std::string m_text;
};

/// Expects that the text is refused for that reason, whole and at some column of the first line.
void expectRefused(const std::string& text, const std::string& reason)
{
    TextReader document;
    EXPECT_THAT(refusalOf(text, document),
                AllOf(StartsWith("Failed to parse the document Doc: line 1, column "),
                      EndsWith(": " + reason)));
}

std::string repeated(std::size_t count, const std::string& text)
{
    std::string all;
    for (std::size_t i = 0; i < count; ++i)
        all += text;
    return all;
}

/// What the parser reads at once, and more.
constexpr std::size_t BLOCK = 1u << 16;

TEST(XmlSafetyTest, WhatComesBeforeTheDocumentsElementIsBounded)
{
    const std::string reason = "there are more than 1048576 bytes before the document's element";
    const auto comment = [](std::size_t bytes) {
        return "<!--" + std::string(bytes - 13, 'c') + "--><Doc/>";
    };
    const auto model = [](std::size_t bytes) {
        const std::string start = "<!DOCTYPE Doc [<!ELEMENT D (a";
        const std::string end = ")>]><Doc/>";
        return start + repeated((bytes - start.size() - end.size()) / 2, ",a") + end;
    };
    TextReader document;
    EXPECT_TRUE(document.parseBuffer(comment(XML_MAX_PROLOG_BYTES)));
    EXPECT_TRUE(document.parseBuffer(model(XML_MAX_PROLOG_BYTES)));
    expectRefused(comment(XML_MAX_PROLOG_BYTES + BLOCK), reason);
    expectRefused(model(XML_MAX_PROLOG_BYTES + BLOCK), reason);
    expectRefused(repeated(XML_MAX_PROLOG_BYTES / 8 + BLOCK, "<!--c-->") + "<Doc/>", reason);
    EXPECT_EQ(domParse(model(XML_MAX_PROLOG_BYTES)), 0);
    EXPECT_EQ(domParse(model(XML_MAX_PROLOG_BYTES + BLOCK)), 1);
    // What comes after its start tag is another matter.
    EXPECT_TRUE(
        document.parseBuffer("<Doc>" + std::string(2 * XML_MAX_PROLOG_BYTES, 'x') + "</Doc>"));
}

TEST(XmlSafetyTest, WhatTheParserGathersAtOnceIsBounded)
{
    const std::string reason = "a tag, a comment or a piece of text has more than 12582912 bytes";
    const auto all = [](std::size_t bytes) {
        const std::string filling(bytes, 'x');
        return std::vector{"<a b='" + filling + "'/>", "<a>t</a " + std::string(bytes, ' ') + ">",
                           "<!--" + filling + "-->", "<?p " + filling + "?>",
                           "<![CDATA[" + filling + "]]>"};
    };
    for (const std::string& inner : all(XML_MAX_PIECE_BYTES - BLOCK)) {
        TextReader document;
        EXPECT_TRUE(document.parseBuffer("<Doc>" + inner + "<a/>" + inner + "</Doc>"))
            << inner.substr(0, 20);
    }
    for (const std::string& inner : all(XML_MAX_PIECE_BYTES + BLOCK))
        expectRefused("<Doc>" + inner + "</Doc>", reason);
    const std::string comment = all(XML_MAX_PIECE_BYTES + BLOCK)[2];
    EXPECT_EQ(domParse("<Doc>" + comment + "</Doc>"), 1);
}

TEST(XmlSafetyTest, ManySmallThingsAndLongTextsAreNotGathered)
{
    TextReader document;
    for (const std::string text : {"<a>1</a>", "<a/>", "<!--c-->", "<?p d?>", "<![CDATA[]]><a/>"})
        EXPECT_TRUE(document.parseBuffer(
            "<Doc>" + repeated((XML_MAX_PIECE_BYTES + BLOCK) / text.size(), text) + "</Doc>"))
            << text;
    // The longest way to write a character; of two units each.
    const std::size_t characters = 2 * XML_MAX_PIECE_BYTES / 10;
    EXPECT_TRUE(document.parseBuffer("<Doc>" + repeated(characters, "&#1114109;") + "</Doc>"));
    EXPECT_TRUE(document.m_text == repeated(characters, "\xF4\x8F\xBF\xBD"));
    EXPECT_TRUE(document.parseBuffer("<Doc>" + repeated(characters, "&#0000065;") + "</Doc>"));
    EXPECT_TRUE(document.m_text == std::string(characters, 'A'));
}

TEST(XmlSafetyTest, TheNumberOfDifferentNamesOfElementsIsBounded)
{
    const auto elements = [](std::size_t count) {
        std::string text = "<Doc><Doc/>";
        for (std::size_t i = 1; i < count; ++i)
            text += "<e" + std::to_string(i) + "/>";
        return text + "<e1/></Doc>";
    };
    const std::string reason = "there are more than 100000 different names of elements";
    TextReader document;
    EXPECT_TRUE(document.parseBuffer(elements(100000)));
    EXPECT_TRUE(document.parseBuffer(elements(100000))); // counted anew
    expectRefused(elements(100001), reason);
    const auto declared = [](std::size_t count) {
        std::string text = "<!DOCTYPE Doc [<!ELEMENT e (e";
        for (std::size_t i = 2; i < count - 1; ++i) // and Doc and z
            text += "|e" + std::to_string(i);
        return text + ")><!ELEMENT z ANY>]><Doc/>";
    };
    EXPECT_TRUE(document.parseBuffer(declared(100000)));
    expectRefused(declared(100001), reason);
}

TEST(XmlSafetyTest, TheTextOfOneContextIsBounded)
{
    const std::string most(XML_MAX_TEXT, 'x');
    TextReader document;
    EXPECT_TRUE(document.parseBuffer("<Doc>" + most + "<a/>" + most + "</Doc>"));
    EXPECT_TRUE(document.m_text == most);
    for (const char* more : {"x", "<!---->x", "&amp;", "<![CDATA[x]]>"})
        expectRefused("<Doc>" + most + more + "</Doc>", "a text has more than 16777216 characters");
}

TEST(XmlSafetyTest, AContextKeepsNoMoreTextThanItMayHave)
{
    const std::basic_string<XMLCh> most(XML_MAX_TEXT, 'x');
    const std::basic_string<XMLCh> name = TlxString("a").toXmlCh();
    const XmlObjParseContext outer(name.c_str());
    XmlObjParseContext context(name.c_str(), &outer);
    context.appendText(most.c_str(), most.size());
    EXPECT_TRUE(outer.refusal().empty());
    context.appendText(most.c_str(), 1);
    EXPECT_EQ(outer.refusal(), TlxString("a text has more than 16777216 characters"));
    EXPECT_EQ(context.text().utf8().size(), XML_MAX_TEXT);
    context.refuse("another reason");
    EXPECT_EQ(outer.refusal(), TlxString("a text has more than 16777216 characters"));
}

TEST(XmlSafetyTest, WhatAnObjectRefusesFailsTheParseAtItsPlace)
{
    struct Document : XmlRecorder
    {
        void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                             AttributeList& attributes) override
        {
            XmlRecorder::xmlStartElement(context, name, attributes);
            const XmlObjParseContext inner(name, context);
            inner.refuse("no room");
        }
    } document;
    EXPECT_EQ(refusalOf("<Doc><a/></Doc>", document),
              "Failed to parse the document Doc: line 1, column 6: no room");
    EXPECT_EQ(document.m_events, "<Doc>");
}

TEST(XmlSafetyTest, AThousandFaultsAreFineOneMoreIsNot)
{
    struct Document : TextReader
    {
        void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                             AttributeList&) override
        {
            const XmlObjParseContext inner(name, context);
            inner.countFault();
        }
    } document;
    EXPECT_TRUE(document.parseBuffer("<Doc>" + repeated(XML_MAX_FAULTS - 1, "<a/>") + "</Doc>"));
    EXPECT_EQ(refusalOf("<Doc>" + repeated(XML_MAX_FAULTS, "<a/>") + "</Doc>", document),
              "Failed to parse the document Doc: line 1, column 4006: there are more than 1000 "
              "elements that are unknown or refused");
}

class XmlExternalEntityTest : public testing::Test
{
  protected:
    XmlExternalEntityTest()
    {
        QmTest::writeFile(m_directory.path("secret"), "secret");
        QmTest::writeFile(m_directory.path("doc.dtd"), "<!ENTITY e \"secret\">");
    }
    const QmTest::TemporaryDirectory m_directory;
    const std::string m_root = m_directory.path().string();
};

TEST_F(XmlExternalEntityTest, AReferenceToOneFailsTheParse)
{
    for (const std::string& where : {m_root + "/secret", "file://" + m_root + "/secret",
                                     std::string("http://127.0.0.1:9/secret")}) {
        const std::string text =
            "<!DOCTYPE Doc [<!ENTITY e SYSTEM \"" + where + "\">]><Doc>&e;</Doc>";
        XmlRecorder document;
        EXPECT_THAT(refusalOf(text, document),
                    StartsWith("Failed to parse the document Doc: line 1, "));
        EXPECT_EQ(document.m_events, "<Doc>");
        EXPECT_EQ(domParse(text), 1);
    }
}

TEST_F(XmlExternalEntityTest, OneThatIsOnlyDeclaredIsNotRead)
{
    const std::string text =
        "<!DOCTYPE Doc [<!ENTITY e SYSTEM \"" + m_root + "/none\">]><Doc>t</Doc>";
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer(text));
    EXPECT_EQ(document.m_events, "<Doc>t</Doc>");
}

TEST_F(XmlExternalEntityTest, ADocumentTypeFromOutsideIsNotRead)
{
    const std::string type = "<!DOCTYPE Doc SYSTEM \"" + m_root + "/doc.dtd\">";
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer(type + "<Doc>t</Doc>"));
    EXPECT_EQ(document.m_events, "<Doc>t</Doc>");
    // So what it declares is not known; without a reading of it that is no error, and no text.
    XmlRecorder other;
    LogCapture log;
    other.parseBuffer(type + "<Doc>&e;</Doc>");
    EXPECT_EQ(other.m_events.find("secret"), std::string::npos);
}

TEST_F(XmlExternalEntityTest, SchemaLocationsAreNotFollowed)
{
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer("<Doc xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' "
                                     "xsi:noNamespaceSchemaLocation='" +
                                     m_root + "/none.xsd'>t</Doc>"));
}

TEST(XmlSafetyTest, WhatAnObjectThrowsFailsTheParseAtItsPlace)
{
    XmlRecorder document;
    document.m_atStart = [] { throw std::runtime_error("no room"); };
    EXPECT_EQ(refusalOf("<Doc/>", document),
              "Failed to parse the document Doc: line 1, column 7: no room");
    document.m_atStart = [] { throw 5; };
    EXPECT_EQ(refusalOf("<Doc/>", document),
              "Failed to parse the document Doc: line 1, column 7: an unknown exception");
    document.m_atStart = [] { throw std::bad_alloc(); };
    EXPECT_EQ(refusalOf("<Doc/>", document),
              "Failed to parse the document Doc: line 1, column 7: std::bad_alloc");
}

TEST(XmlSafetyTest, AnObjectWithoutAContextFails)
{
    struct Document : XmlRecorder
    {
        XmlObjParseContext* getObjParseContext(const XMLCh*) override { return nullptr; }
    } document;
    EXPECT_EQ(refusalOf("<Doc/>", document), "Failed to parse the document Doc: line 0, column 0: "
                                             "the document's object gave no context");
}

TEST(XmlSafetyTest, ASourceWithoutAStreamFails)
{
    struct Source : xercesc::InputSource
    {
        xercesc::BinInputStream* makeStream() const override { return nullptr; }
    };
    LogCapture log;
    XmlRecorder document;
    Source source;
    EXPECT_FALSE(document.parse(source));
    EXPECT_THAT(log.texts(LOG_LEVEL_FAILURE),
                ElementsAre("Failed to parse the document Doc: line 0, column 0: the document "
                            "cannot be opened"));
}

TEST(XmlSafetyTest, ManyAttributesAndManyElementsAreFine)
{
    std::string attributes = "<Doc";
    std::string elements = "<Doc>";
    for (int i = 0; i < 50000; ++i) {
        attributes += " a" + std::to_string(i) + "='1'";
        elements += "<e" + std::to_string(i) + "/>";
    }
    XmlDocumentInterface document(nullptr, "Doc");
    EXPECT_TRUE(document.parseBuffer(attributes + "/>"));
    EXPECT_TRUE(document.parseBuffer(elements + "</Doc>"));
}

} // namespace
