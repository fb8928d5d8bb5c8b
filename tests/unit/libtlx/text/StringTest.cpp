#include <gtest/gtest.h>

#include <sstream>

#include <tlx/HostConfig.h>
#include <tlx/Hostname.h>
#include <tlx/String.h>

using namespace Veltrane::Quillmark::Tlx;

namespace {

using Utf16 = std::basic_string<XMLCh>;

TEST(StringTest, NarrowTextIsTakenAsItIs)
{
    const std::string bytes("a\xC3\xA9\xFF\0b", 6);
    EXPECT_EQ(TlxString(bytes).utf8(), bytes);
    EXPECT_EQ(TlxString(bytes).size(), 6u);
    EXPECT_EQ(TlxString(std::string_view(bytes)), TlxString(bytes));
}

TEST(StringTest, NullPointersAreEmpty)
{
    EXPECT_TRUE(TlxString(static_cast<const char*>(nullptr)).empty());
    EXPECT_TRUE(TlxString::fromXmlCh(static_cast<const XMLCh*>(nullptr)).empty());
}

TEST(StringTest, AppendClearCompareAndPrint)
{
    TlxString text("a");
    text.append("b");
    EXPECT_STREQ(text.c_str(), "ab");
    EXPECT_LT(TlxString("ab"), TlxString("b"));
    EXPECT_NE(TlxString("a"), TlxString("A"));
    std::ostringstream out;
    out << text;
    EXPECT_EQ(out.str(), "ab");
    text.clear();
    EXPECT_TRUE(text.empty());
}

TEST(StringTest, EveryPlaneSurvivesTheWayThroughUtf16)
{
    const TlxString text("a \xC3\xA9 \xE6\x97\xA5 \xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF");
    const Utf16 expected = {'a', ' ', 0xE9, ' ', 0x65E5, ' ', 0xD83D, 0xDE00, ' ', 0xDBFF, 0xDFFF};
    EXPECT_EQ(text.toXmlCh(), expected);
    EXPECT_EQ(TlxString::fromXmlCh(expected.c_str()), text);
}

TEST(StringTest, EveryCodePointComesBack)
{
    for (char32_t codePoint = 1; codePoint <= 0x10FFFF; ++codePoint) {
        if (codePoint >= 0xD800 && codePoint <= 0xDFFF)
            continue;
        Utf16 utf16;
        if (codePoint < 0x10000) {
            utf16 = {static_cast<XMLCh>(codePoint)};
        } else {
            utf16 = {static_cast<XMLCh>(0xD7C0 + (codePoint >> 10)),
                     static_cast<XMLCh>(0xDC00 + (codePoint & 0x3FF))};
        }
        const TlxString text = TlxString::fromXmlCh(utf16);
        char32_t decoded = 0;
        ASSERT_EQ(utf8Character(text.utf8(), &decoded), text.size()) << std::size_t{codePoint};
        ASSERT_TRUE(decoded == codePoint) << std::size_t{codePoint};
        ASSERT_EQ(text.toXmlCh(), utf16) << std::size_t{codePoint};
    }
}

TEST(StringTest, UnpairedSurrogatesBecomeTheReplacementCharacter)
{
    const std::string replaced = "\xEF\xBF\xBD";
    EXPECT_EQ(TlxString::fromXmlCh(Utf16{0xD83D}).utf8(), replaced);
    EXPECT_EQ(TlxString::fromXmlCh(Utf16{0xDE00, 'x'}).utf8(), replaced + "x");
    EXPECT_EQ(TlxString::fromXmlCh(Utf16{0xD83D, 'x'}).utf8(), replaced + "x");
    EXPECT_EQ(TlxString::fromXmlCh(Utf16{0xD83D, 0xD83D, 0xDE00}).utf8(),
              replaced + "\xF0\x9F\x98\x80");
}

TEST(StringTest, BytesThatAreNoUtf8BecomeOneReplacementCharacterEach)
{
    EXPECT_EQ(TlxString("a\xFF"
                        "b")
                  .toXmlCh(),
              (Utf16{'a', 0xFFFD, 'b'}));
    EXPECT_EQ(TlxString("\xE6\x97").toXmlCh(), (Utf16{0xFFFD, 0xFFFD}));
    EXPECT_EQ(TlxString("\xED\xA0\x80").toXmlCh(), (Utf16{0xFFFD, 0xFFFD, 0xFFFD}));
}

TEST(StringTest, OnlyWellFormedCharactersAreCharacters)
{
    EXPECT_EQ(utf8Character(""), 0u);
    EXPECT_EQ(utf8Character(std::string_view("\0", 1)), 1u);
    EXPECT_EQ(utf8Character("ab"), 1u);
    EXPECT_EQ(utf8Character("\xC3\xA9z"), 2u);
    EXPECT_EQ(utf8Character("\xE6\x97\xA5"), 3u);
    EXPECT_EQ(utf8Character("\xF0\x9F\x98\x80"), 4u);
    for (const char* bad : {"\x80",             // a continuation byte
                            "\xC3",             // cut short
                            "\xC3(",            // the second byte is none
                            "\xC0\xAF",         // longer than needed
                            "\xE0\x80\xAF",     // longer than needed
                            "\xF0\x80\x80\xAF", // longer than needed
                            "\xED\xBF\xBF",     // a surrogate
                            "\xF4\x90\x80\x80", // beyond the last code point
                            "\xF8\x88\x80\x80\x80", "\xFE", "\xFF"})
        EXPECT_EQ(utf8Character(bad), 0u) << bad;
}

TEST(StringTest, CaseOfAsciiLettersAloneIsIgnored)
{
    EXPECT_EQ(compareIgnoringCase("HostName", "hOSTnAME"), 0);
    EXPECT_LT(compareIgnoringCase("a", "B"), 0);
    EXPECT_GT(compareIgnoringCase("b", "A"), 0);
    EXPECT_LT(compareIgnoringCase("a", "ab"), 0);
    EXPECT_GT(compareIgnoringCase("ab", "a"), 0);
    EXPECT_LT(compareIgnoringCase("a", "\xC3\xA9"), 0); // bytes count as unsigned
    EXPECT_NE(compareIgnoringCase("\xC3\xA9", "\xC3\x89"), 0);
    EXPECT_NE(compareIgnoringCase("[", "{"), 0);
    EXPECT_NE(compareIgnoringCase("@", "`"), 0);
    EXPECT_TRUE(isSameIgnoringCase("HostName", "hOSTnAME"));
    EXPECT_FALSE(isSameIgnoringCase("HostName", "HostNam"));
    EXPECT_FALSE(isSameIgnoringCase("a", "b"));
}

TEST(HostnameTest, BlanksAroundANameDoNotBelongToIt)
{
    TlxHostname name;
    EXPECT_TRUE(name.empty());
    name.setHostname(" \t alpha.example \r\n");
    EXPECT_EQ(name.text(), TlxString("alpha.example"));
    EXPECT_STREQ(name.c_str(), "alpha.example");
    name.setHostname("  ");
    EXPECT_TRUE(name.empty());
    EXPECT_EQ(TlxHostname("two words").text(), TlxString("two words"));
}

TEST(HostnameTest, NamesAreEqualWhateverTheCase)
{
    EXPECT_EQ(TlxHostname("Alpha"), TlxHostname("aLPHA"));
    EXPECT_FALSE(TlxHostname("alpha") == TlxHostname("alpha2"));
}

TEST(HostnameTest, TheLocalNameIsTheConfiguredOne)
{
    HostConfig::instance().readText("CLIENT_NAME = gamma.example\n", "qm.conf");
    TlxHostname name("other");
    name.setLocal();
    EXPECT_EQ(name.text(), TlxString("gamma.example"));
    EXPECT_EQ(TlxHostname::local().text(), TlxString("gamma.example"));
}

} // namespace
