#include <gtest/gtest.h>

#include <string>

#include <tlx/Wildcard.h>

#include "../../../../libtlx/lib/text/WildcardMatch.h"

using namespace Veltrane::Quillmark::Tlx;

namespace {

bool matches(const char* pattern, const char* text)
{
    const int result = wildcardcmp(pattern, text, 0);
    EXPECT_TRUE(result == 0 || result == 1) << result;
    return result == 0;
}

TEST(WildcardTest, WithoutWildcardsTheTextsAreEqual)
{
    EXPECT_TRUE(matches("", ""));
    EXPECT_TRUE(matches("abc", "abc"));
    EXPECT_FALSE(matches("abc", "abcd"));
    EXPECT_FALSE(matches("abcd", "abc"));
    EXPECT_FALSE(matches("", "a"));
    EXPECT_FALSE(matches("a", ""));
    EXPECT_FALSE(matches("abc", "aBc"));
}

TEST(WildcardTest, NullPointersAreEmptyTexts)
{
    EXPECT_TRUE(matches(nullptr, nullptr));
    EXPECT_TRUE(matches("*", nullptr));
    EXPECT_FALSE(matches(nullptr, "a"));
}

TEST(WildcardTest, AStarStandsForAnyRun)
{
    EXPECT_TRUE(matches("*", ""));
    EXPECT_TRUE(matches("*", "a/b.c\n"));
    EXPECT_TRUE(matches("cl*", "cl"));
    EXPECT_TRUE(matches("cl*", "client1"));
    EXPECT_FALSE(matches("cl*", "acl"));
    EXPECT_TRUE(matches("*.dat", "x.dat.dat"));
    EXPECT_TRUE(matches("a*b*c", "aXbYbZc"));
    EXPECT_FALSE(matches("a*b*c", "aXcYb"));
    EXPECT_TRUE(matches("**a**", "xay"));
    EXPECT_TRUE(matches("*ab", "aab"));
    EXPECT_TRUE(matches("*a*", ".a")); // a leading dot is a character like any other
}

TEST(WildcardTest, AQuestionMarkStandsForOneCharacter)
{
    EXPECT_TRUE(matches("?", "a"));
    EXPECT_FALSE(matches("?", ""));
    EXPECT_FALSE(matches("?", "ab"));
    EXPECT_TRUE(matches("a?c", "a/c"));
    EXPECT_TRUE(matches("*?", "a"));
    EXPECT_FALSE(matches("*?", ""));
    EXPECT_TRUE(matches("?*?", "ab"));
    EXPECT_FALSE(matches("?*?", "a"));
}

TEST(WildcardTest, OneCharacterOfUtf8IsOneCharacter)
{
    EXPECT_TRUE(matches("?", "\xC3\xA9"));
    EXPECT_TRUE(matches("a?b", "a\xF0\x9F\x98\x80"
                               "b"));
    EXPECT_FALSE(matches("??", "\xC3\xA9"));
    EXPECT_TRUE(matches("*?", "\xE6\x97\xA5"));
    EXPECT_TRUE(matches("*\xC3\xA9", "caf\xC3\xA9"));
}

TEST(WildcardTest, AByteThatIsNoUtf8IsOneCharacter)
{
    EXPECT_TRUE(matches("?", "\xFF"));
    EXPECT_TRUE(matches("??", "\xC3("));
    EXPECT_TRUE(matches("\xFF*", "\xFFxyz"));
    EXPECT_TRUE(matches("?", "\x80"));
    EXPECT_TRUE(matches("??", "\xE6\x97"));
}

TEST(WildcardTest, AllElseStandsForItself)
{
    EXPECT_TRUE(matches("[ab]", "[ab]"));
    EXPECT_FALSE(matches("[ab]", "a"));
    EXPECT_TRUE(matches("a\\*b", "a\\xyzb"));
    EXPECT_FALSE(matches("a\\*b", "a*b"));
    EXPECT_FALSE(matches("[!a]", "b"));
    // A wildcard in the text is a character like any other.
    EXPECT_FALSE(matches("a", "*"));
    EXPECT_TRUE(matches("?", "*"));
    EXPECT_TRUE(matches("*a", "*a"));
    EXPECT_TRUE(matches("*x", "a*x"));
}

TEST(WildcardTest, NoPatternTakesMoreThanTheProductOfTheLengths)
{
    const std::string text(2000, 'a');
    std::string stars;
    for (int i = 0; i < 200; ++i)
        stars += "a*";
    for (const std::string& pattern :
         {stars + "b", "*" + std::string(500, 'a') + "b", std::string(500, '*') + "b",
          std::string(300, '?') + "*b", stars + stars + std::string("?b")}) {
        std::uint64_t steps = 0;
        EXPECT_FALSE(wildcardMatch(pattern, text, steps));
        EXPECT_GT(steps, 0u);
        EXPECT_LE(steps, (pattern.size() + 1) * (text.size() + 1));
    }
}

} // namespace
