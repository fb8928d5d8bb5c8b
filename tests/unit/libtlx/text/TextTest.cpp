// Letters of ASCII and blanks.

#include <tlx/Text.h>

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

TEST(TextTest, OnlyTheLettersOfAsciiHaveACase)
{
    for (int i = 0; i < 256; ++i) {
        const char c = static_cast<char>(i);
        EXPECT_EQ(i >= 'A' && i <= 'Z' ? static_cast<char>(i + 32) : c, lowerCase(c)) << i;
    }
    EXPECT_EQ(u'a', lowerCase(u'A'));
    EXPECT_EQ(u'\u00C9', lowerCase(u'\u00C9'));
}

TEST(TextTest, ATextIsLoweredWhole)
{
    EXPECT_EQ("", lowerCase(std::string()));
    EXPECT_EQ("az@[`{ 0 \xC3\x89", lowerCase(std::string("AZ@[`{ 0 \xC3\x89")));
}

TEST(TextTest, BlanksAreTakenOffBothEnds)
{
    EXPECT_EQ("a b", trimmed(" \t\r\na b\n\r\t "));
    EXPECT_EQ("a", trimmed("a"));
    EXPECT_EQ("", trimmed(" \t\r\n"));
    EXPECT_EQ("", trimmed(""));
    EXPECT_EQ("\va\v", trimmed(" \va\v "));
    EXPECT_EQ("\ra\r", trimmed(" \ra\r\t", " \t"));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
