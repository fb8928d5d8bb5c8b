#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tlx/DomHandler.h>

#include "support/Capture.h"

using namespace Veltrane::Quillmark::Tlx;

namespace {

TEST(DataDescriptionTest, ConvertsIntoTheTargetsType)
{
    TlxString text("old");
    std::uint32_t unsignedNumber = 1;
    std::int32_t signedNumber = 1;
    TlxObjTime time(1);
    EXPECT_TRUE(DataDescription(text).store(" 5 "));
    EXPECT_TRUE(DataDescription(unsignedNumber).store(" 5 "));
    EXPECT_TRUE(DataDescription(signedNumber).store("-5"));
    EXPECT_TRUE(DataDescription(time).store("5.5"));
    EXPECT_EQ(text, TlxString(" 5 "));
    EXPECT_EQ(unsignedNumber, 5u);
    EXPECT_EQ(signedNumber, -5);
    EXPECT_EQ(time, TlxObjTime(5, 500000));
    EXPECT_FALSE(DataDescription(unsignedNumber).store("-5"));
    EXPECT_FALSE(DataDescription(signedNumber).store("x"));
    EXPECT_FALSE(DataDescription(time).store(""));
    EXPECT_EQ(unsignedNumber, 5u);
    EXPECT_EQ(signedNumber, -5);
    EXPECT_EQ(time, TlxObjTime(5, 500000));
}

/// The text of the first element with the name, "?" if no element has it.
std::string textOf(const char* document, const char* element)
{
    TlxDOMHandler handler(document);
    EXPECT_EQ(handler.parse(), 0) << document;
    TlxString text("?");
    const int result = handler.getValue(element, text);
    EXPECT_EQ(result, text == TlxString("?") ? 1 : 0);
    return text.utf8();
}

TEST(DomHandlerTest, FindsTheFirstElementInDocumentOrder)
{
    const char* document = "<r><a><x>1</x></a><x>2</x><b><y>3</y></b></r>";
    EXPECT_EQ(textOf(document, "x"), "1");
    EXPECT_EQ(textOf(document, "y"), "3");
    EXPECT_EQ(textOf(document, "z"), "?");
    EXPECT_EQ(textOf(document, "X"), "?");
    EXPECT_EQ(textOf("<r>t</r>", "r"), "t");
}

TEST(DomHandlerTest, TheTextInsideAnElement)
{
    EXPECT_EQ(textOf("<r><x>a<!-- c -->b<![CDATA[<c>]]><y>d<z>e</z></y>&amp;<?p i?>f</x></r>", "x"),
              "ab<c>de&f");
    EXPECT_EQ(textOf("<r><x/></r>", "x"), "");
    EXPECT_EQ(textOf("<r><x> caf\xC3\xA9\n</x></r>", "x"), " caf\xC3\xA9\n");
    EXPECT_EQ(textOf("<!DOCTYPE r [<!ENTITY e 'f'>]><r><x>d&e;g</x></r>", "x"), "dfg");
    EXPECT_EQ(textOf("\xEF\xBB\xBF<r><x>1</x></r>", "x"), "1");
    EXPECT_EQ(textOf("<?xml version='1.0' encoding='ISO-8859-1'?><x>\xE9</x>", "x"), "\xC3\xA9");
}

TEST(DomHandlerTest, AValueOfAnotherTypeLeavesTheTarget)
{
    TlxDOMHandler handler("<r><n>12</n><s>abc</s><big>4294967296</big><empty/></r>");
    ASSERT_EQ(handler.parse(), 0);
    std::uint32_t value = 7;
    EXPECT_EQ(handler.getValue("s", value), 2);
    EXPECT_EQ(handler.getValue("big", value), 2);
    EXPECT_EQ(handler.getValue("empty", value), 2);
    EXPECT_EQ(handler.getValue("none", value), 1);
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(handler.getValue("n", value), 0);
    EXPECT_EQ(value, 12u);
    EXPECT_EQ(handler.getValue(nullptr, value), 1);
}

TEST(DomHandlerTest, TextsThatAreNoDocumentsFailWithoutAWord)
{
    QmTest::LogCapture log;
    for (const char* text : {"", " ", "x", "<r>", "<r></s>", "<r/><r/>", "<r>\xFF</r>"}) {
        TlxDOMHandler handler(text);
        EXPECT_EQ(handler.parse(), 1) << text;
        TlxString value("old");
        EXPECT_EQ(handler.getValue("r", value), 1);
        EXPECT_EQ(value, TlxString("old"));
    }
    TlxDOMHandler null(nullptr);
    EXPECT_EQ(null.parse(), 1);
    EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST(DomHandlerTest, NothingIsFoundBeforeTheParse)
{
    TlxDOMHandler handler("<r>1</r>");
    std::uint32_t value = 7;
    EXPECT_EQ(handler.getValue("r", value), 1);
    EXPECT_EQ(handler.parse(), 0);
    EXPECT_EQ(handler.parse(), 0);
    EXPECT_EQ(handler.getValue("r", value), 0);
    EXPECT_EQ(value, 1u);
}

TEST(DomHandlerTest, TheTextIsCopied)
{
    std::string text = "<r>1</r>";
    TlxDOMHandler handler(text.c_str());
    text = "xxxxxxxxxxxxxxxx";
    EXPECT_EQ(handler.parse(), 0);
}

TEST(DomHandlerTest, DocumentsLiveBesideEachOther)
{
    TlxDOMHandler first("<r>1</r>");
    TlxDOMHandler second("<r>2</r>");
    ASSERT_EQ(first.parse(), 0);
    ASSERT_EQ(second.parse(), 0);
    std::uint32_t a = 0, b = 0;
    EXPECT_EQ(first.getValue("r", a), 0);
    EXPECT_EQ(second.getValue("r", b), 0);
    EXPECT_EQ(a, 1u);
    EXPECT_EQ(b, 2u);
}

TEST(DomHandlerTest, DeepText)
{
    std::string text;
    for (int i = 0; i < 255; ++i)
        text += "<a>";
    text += "<n>5</n>";
    for (int i = 0; i < 255; ++i)
        text += "</a>";
    TlxDOMHandler handler(text.c_str());
    ASSERT_EQ(handler.parse(), 0);
    std::uint32_t value = 0;
    EXPECT_EQ(handler.getValue("n", value), 0);
    EXPECT_EQ(handler.getValue("a", value), 0);
    EXPECT_EQ(value, 5u);
}

} // namespace
