#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

#include <tlx/XmlStr.h>

using namespace Veltrane::Quillmark::Tlx;

namespace {

std::string written(const TlxString& text, XmlStr::Encoding encoding = XmlStr::XE_UTF8)
{
    std::ostringstream out;
    out << XmlStr(text, encoding);
    return out.str();
}

TEST(XmlStrTest, MarkupIsEscaped)
{
    EXPECT_EQ(written("a&b<c>d\"e'f"), "a&amp;b&lt;c&gt;d&quot;e&apos;f");
    EXPECT_EQ(written("]]>"), "]]&gt;");
    EXPECT_EQ(written(""), "");
}

TEST(XmlStrTest, LineBreaksAndTabs)
{
    EXPECT_EQ(written("a\r\nb\tc"), "a&#13;\nb\tc");
}

TEST(XmlStrTest, ACharacterReferenceObeysNoStateOfTheStream)
{
    std::ostringstream out;
    out << std::hex << std::showbase << std::setfill('#') << std::setw(9) << XmlStr("\r");
    EXPECT_EQ(out.str(), "&#13;");
}

TEST(XmlStrTest, WhatXmlCannotCarryIsReplaced)
{
    const std::string replaced = "\xEF\xBF\xBD";
    EXPECT_EQ(written(std::string("a\0b\x01\x1F", 5)), "a" + replaced + "b" + replaced + replaced);
    EXPECT_EQ(written("\xFF\xC3"), replaced + replaced);
    EXPECT_EQ(written("\xEF\xBF\xBE\xEF\xBF\xBF"), replaced + replaced);
    EXPECT_EQ(written("\x7F"), "\x7F");
}

TEST(XmlStrTest, Utf8StaysAsItIs)
{
    EXPECT_EQ(written("\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80"),
              "\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80");
}

TEST(XmlStrTest, WhatTheEncodingLacksIsACharacterReference)
{
    EXPECT_EQ(written("a\xC3\xA9\xF0\x9F\x98\x80", XmlStr::XE_ASCII), "a&#233;&#128512;");
    EXPECT_EQ(written("\xFF", XmlStr::XE_ASCII), "&#65533;");
}

TEST(XmlStrTest, Prologs)
{
    const auto prolog = [](XmlStr::Encoding encoding) {
        std::ostringstream out;
        EXPECT_EQ(&XmlStr::xmlProlog(out, encoding), &out);
        return out.str();
    };
    EXPECT_EQ(prolog(XmlStr::XE_UTF8), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
    EXPECT_EQ(prolog(XmlStr::XE_ASCII), "<?xml version=\"1.0\" encoding=\"US-ASCII\"?>");
}

TEST(XmlStrTest, Tags)
{
    std::ostringstream out;
    XmlStr::appendEnd(XmlStr::appendStart(out, "Priority") << 5, "Priority");
    EXPECT_EQ(out.str(), "<Priority>5</Priority>");
}

TEST(XmlStrTest, Attributes)
{
    std::ostringstream out;
    EXPECT_EQ(&XmlStr::appendAttribute(out, "Name", "a \"b\" <\xC3\xA9>"), &out);
    XmlStr::appendAttribute(out, "Empty", "");
    XmlStr::appendAttribute(out, "Ascii", "\xC3\xA9", XmlStr::XE_ASCII);
    EXPECT_EQ(out.str(), " Name=\"a &quot;b&quot; &lt;\xC3\xA9&gt;\" Empty=\"\" Ascii=\"&#233;\"");
}

TEST(XmlStrTest, WhiteSpaceThatAReaderWouldTurnIntoBlanksIsKeptInAttributes)
{
    std::ostringstream out;
    XmlStr::appendAttribute(out, "a", "1\t2\n3\r4 5");
    EXPECT_EQ(out.str(), " a=\"1&#9;2&#10;3&#13;4 5\"");
}

TEST(XmlStrTest, AnElementHoldsItsEscapedText)
{
    std::ostringstream out;
    EXPECT_EQ(&XmlStr::appendElement(out, "Name", "a \"b\" <\xC3\xA9>"), &out);
    XmlStr::appendElement(out, "Empty", "");
    XmlStr::appendElement(out, "Ascii", "\xC3\xA9", XmlStr::XE_ASCII);
    EXPECT_EQ(out.str(), "<Name>a &quot;b&quot; &lt;\xC3\xA9&gt;</Name><Empty></Empty>"
                         "<Ascii>&#233;</Ascii>");
}

} // namespace
