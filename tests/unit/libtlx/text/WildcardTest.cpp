#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

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

/// The definition, word for word. Only for short texts of the characters a, b, é and \xFF.
bool matchesByDefinition(std::string_view pattern, std::string_view text)
{
    const auto size = [](std::string_view rest) {
        return rest.starts_with("\xC3\xA9") ? std::size_t{2} : std::size_t{1};
    };
    if (pattern.empty())
        return text.empty();
    if (pattern.front() == '*')
        return matchesByDefinition(pattern.substr(1), text) ||
               (!text.empty() && matchesByDefinition(pattern, text.substr(size(text))));
    if (text.empty())
        return false;
    const bool isOne =
        pattern.front() == '?' || pattern.substr(0, size(pattern)) == text.substr(0, size(text));
    return isOne && matchesByDefinition(pattern.substr(size(pattern)), text.substr(size(text)));
}

TEST(WildcardTest, AgreesWithTheDefinition)
{
    std::minstd_rand random(1);
    const auto make = [&random](const std::vector<std::string>& parts) {
        std::string made;
        for (auto length = random() % 8; length > 0; --length)
            made += parts[random() % parts.size()];
        return made;
    };
    unsigned matched = 0;
    for (int i = 0; i < 100000; ++i) {
        const std::string pattern = make({"a", "b", "\xC3\xA9", "\xFF", "*", "*", "?"});
        const std::string text = make({"a", "b", "\xC3\xA9", "\xFF"});
        const bool wanted = matchesByDefinition(pattern, text);
        ASSERT_EQ(matches(pattern.c_str(), text.c_str()), wanted) << pattern << " and " << text;
        matched += wanted ? 1 : 0;
    }
    EXPECT_GT(matched, 1000u);
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
