// The bounds of a document.

#include <tlx/Xml.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "XmlRefusal.h"
#include "support/Text.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::domParse;
using QmTest::expectRefused;
using QmTest::refusalOf;
using QmTest::repeated;
using QmTest::TextReader;

namespace {

/// At least as many bytes as the parser reads at once.
constexpr std::size_t BLOCK = 1u << 16;

TEST(XmlBoundsTest, TheBytesBeforeTheDocumentsElementAreBounded)
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
    // The bound covers nothing behind the root's start tag.
    EXPECT_TRUE(
        document.parseBuffer("<Doc>" + std::string(2 * XML_MAX_PROLOG_BYTES, 'x') + "</Doc>"));
}

TEST(XmlBoundsTest, WhatTheParserGathersAtOnceIsBounded)
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

TEST(XmlBoundsTest, ManySmallThingsAndLongTextsAreNotGathered)
{
    TextReader document;
    for (const std::string text : {"<a>1</a>", "<a/>", "<!--c-->", "<?p d?>", "<![CDATA[]]><a/>"})
        EXPECT_TRUE(document.parseBuffer(
            "<Doc>" + repeated((XML_MAX_PIECE_BYTES + BLOCK) / text.size(), text) + "</Doc>"))
            << text;
    // The longest reference to a character that has two UTF-16 units.
    const std::size_t characters = 2 * XML_MAX_PIECE_BYTES / 10;
    EXPECT_TRUE(document.parseBuffer("<Doc>" + repeated(characters, "&#1114109;") + "</Doc>"));
    EXPECT_TRUE(document.m_text == repeated(characters, "\xF4\x8F\xBF\xBD"));
    EXPECT_TRUE(document.parseBuffer("<Doc>" + repeated(characters, "&#0000065;") + "</Doc>"));
    EXPECT_TRUE(document.m_text == std::string(characters, 'A'));
}

TEST(XmlBoundsTest, TheNumberOfDifferentNamesOfElementsIsBounded)
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
    EXPECT_TRUE(document.parseBuffer(elements(100000))); // each document has its own count
    expectRefused(elements(100001), reason);
    const auto declared = [](std::size_t count) {
        std::string text = "<!DOCTYPE Doc [<!ELEMENT e (e";
        for (std::size_t i = 2; i < count - 1; ++i) // in addition to Doc and z
            text += "|e" + std::to_string(i);
        return text + ")><!ELEMENT z ANY>]><Doc/>";
    };
    EXPECT_TRUE(document.parseBuffer(declared(100000)));
    expectRefused(declared(100001), reason);
}

TEST(XmlBoundsTest, TheTextOfOneContextIsBounded)
{
    const std::string most(XML_MAX_TEXT, 'x');
    TextReader document;
    EXPECT_TRUE(document.parseBuffer("<Doc>" + most + "<a/>" + most + "</Doc>"));
    EXPECT_TRUE(document.m_text == most);
    for (const char* more : {"x", "<!---->x", "&amp;", "<![CDATA[x]]>"})
        expectRefused("<Doc>" + most + more + "</Doc>", "a text has more than 16777216 characters");
}

TEST(XmlBoundsTest, AContextKeepsNoMoreTextThanItMayHave)
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

TEST(XmlBoundsTest, AThousandFaultsAreFineOneMoreIsNot)
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

} // namespace
