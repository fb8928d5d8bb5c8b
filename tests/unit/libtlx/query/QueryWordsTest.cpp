// The words of the query language: the table, and the documents that repeat it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "../../../../libtlx/lib/query/QueryWords.h"
#include <tlx/Query.h>

using namespace Veltrane::Quillmark::Tlx;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAreArray;

namespace {

/// The text of a document, with one blank for each run of white space.
std::string textOf(const std::string& path)
{
    std::ifstream file(path);
    const std::string text((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    return std::regex_replace(text, std::regex("\\s+"), " ");
}

/// A rule of the grammar in docs/filters.md, without its name. Empty if the rule does not exist.
std::string ruleOf(const std::string& name)
{
    std::ifstream file(QM_DOCS "/filters.md");
    for (std::string line; std::getline(file, line);) {
        std::smatch parts;
        if (std::regex_match(line, parts, std::regex("(\\w+) += (.*)")) && parts[1] == name)
            return parts[2];
    }
    return {};
}

/// The texts inside quotation marks, of both kinds, in rules.
std::vector<std::string> quotedIn(const std::vector<std::string>& rules)
{
    const std::regex quoted("\"([^\"]+)\"|'([^']+)'");
    std::vector<std::string> result;
    for (const std::string& name : rules) {
        const std::string rule = ruleOf(name);
        EXPECT_THAT(rule, Not(IsEmpty())) << name;
        for (std::sregex_iterator at(rule.begin(), rule.end(), quoted), end; at != end; ++at)
            result.push_back((*at)[1].matched ? (*at)[1] : (*at)[2]);
    }
    return result;
}

template <class Rows>
std::vector<std::string> spellingsOf(const Rows& rows)
{
    std::vector<std::string> result;
    for (const auto& row : rows)
        result.emplace_back(row.spelling);
    return result;
}

std::vector<std::string> unitLetters()
{
    std::vector<std::string> result;
    for (const QueryUnit& unit : QUERY_UNITS)
        result.emplace_back(1, unit.letter);
    return result;
}

bool isAccepted(const std::string& text)
{
    TlxQuery query;
    const bool accepted = query.setQuery(text);
    EXPECT_EQ(query.mistake().toText(), "") << text;
    return accepted;
}

// The table.

TEST(QueryWordsTest, EveryWordIsUnderstood)
{
    for (const QueryComparisonWord& word : QUERY_COMPARISONS)
        EXPECT_TRUE(isAccepted("a" + std::string(word.spelling) + "1"));
    for (const std::string& unit : unitLetters())
        EXPECT_TRUE(isAccepted("a = 1" + unit));
    for (const QueryEscape& escape : QUERY_ESCAPES)
        EXPECT_TRUE(
            isAccepted("a = \"" + std::string(QUERY_ESCAPE) + std::string(escape.spelling) + "\""));
    for (const char mark : QUERY_QUOTATION_MARKS)
        EXPECT_TRUE(isAccepted("a = " + std::string(1, mark) + "b" + std::string(1, mark)));
}

TEST(QueryWordsTest, NoKeywordIsTheNameOfAField)
{
    for (const std::string_view keyword : QUERY_KEYWORDS) {
        EXPECT_FALSE(TlxQuery::isFieldName(keyword)) << keyword;
        EXPECT_TRUE(TlxQuery::isFieldName(std::string(keyword) + "x")) << keyword;
    }
}

// The grammar takes the first keyword that matches at a place, and does not look for a longer one.
TEST(QueryWordsTest, NoKeywordBeginsAnother)
{
    for (const std::string_view one : QUERY_KEYWORDS)
        for (const std::string_view other : QUERY_KEYWORDS)
            EXPECT_TRUE(one == other || !other.starts_with(one)) << one << ", " << other;
}

// The documents.

TEST(QueryWordsTest, TheGrammarInTheDocumentHasTheSameWords)
{
    EXPECT_THAT(quotedIn({"operator"}), UnorderedElementsAreArray(spellingsOf(QUERY_COMPARISONS)));
    EXPECT_THAT(quotedIn({"unit"}), UnorderedElementsAreArray(unitLetters()));
    EXPECT_THAT(quotedIn({"disjunction", "conjunction", "operand", "comparison", "value"}),
                UnorderedElementsAreArray({std::string(QUERY_OR), std::string(QUERY_AND),
                                           std::string(QUERY_OPEN), std::string(QUERY_CLOSE),
                                           std::string(QUERY_NOT), std::string(QUERY_LIKE),
                                           std::string(QUERY_TRUE), std::string(QUERY_FALSE)}));
    std::vector<std::string> escapes = spellingsOf(QUERY_ESCAPES);
    escapes.emplace_back(QUERY_ESCAPE);
    EXPECT_THAT(quotedIn({"escape"}), UnorderedElementsAreArray(escapes));
}

TEST(QueryWordsTest, TheDocumentListsWhatEndsAWord)
{
    std::string listed;
    for (const char c : QUERY_WORD_ENDS)
        if (!isQueryBlank(c))
            listed += std::string(" ") + c;
    EXPECT_THAT(ruleOf("word"), HasSubstr("no blank, tab, line break or" + listed));
}

TEST(QueryWordsTest, TheDocumentsSayWhichWordsAreReserved)
{
    std::string all;
    for (const std::string_view keyword : QUERY_KEYWORDS)
        all += (all.empty() ? "`" : ", `") + std::string(keyword) + "`";
    std::string noValues;
    for (const std::string_view keyword : QUERY_OPERATOR_WORDS)
        noValues += (noValues.empty() ? "`" : ", `") + std::string(keyword) + "`";
    const std::string document = textOf(QM_DOCS "/filters.md");
    EXPECT_THAT(document, HasSubstr("These words are no `field`: " + all + "."));
    EXPECT_THAT(document, HasSubstr("These words are no `word`: " + noValues + "."));
}

TEST(QueryWordsTest, TheExamplesInTheDocumentAreFilters)
{
    std::ifstream file(QM_DOCS "/filters.md");
    const std::regex command("qmdiscoctl items --filter '([^']*)'");
    std::size_t examples = 0;
    for (std::string line; std::getline(file, line);) {
        std::smatch parts;
        if (!std::regex_match(line, parts, command))
            continue;
        ++examples;
        EXPECT_TRUE(isAccepted(parts[1]));
    }
    EXPECT_GT(examples, 4u);
}

TEST(QueryWordsTest, TheManualHasTheSameWords)
{
    const std::string manual = textOf(QM_DOCS "/../packaging/qmdisco-filters.7");
    for (const QueryComparisonWord& word : QUERY_COMPARISONS)
        EXPECT_THAT(manual, HasSubstr("field \" " + std::string(word.spelling) + " \" value"));
    EXPECT_THAT(manual, HasSubstr("field \" " + std::string(QUERY_LIKE) + " \" pattern"));
    // Units of amounts, in the order of their size.
    std::string units;
    for (const QueryUnit& unit : QUERY_UNITS)
        if (unit.factor > 1)
            units += (units.empty() ? "" : ", ") + std::string(1, unit.letter);
    units.replace(units.rfind(", "), 2, " or ");
    EXPECT_THAT(manual, HasSubstr("directly behind: " + units + ","));
    // The manual's name of the apostrophe is \(aq.
    std::string ends;
    for (const char c : QUERY_WORD_ENDS)
        if (!isQueryBlank(c))
            ends += " " + (c == '\'' ? std::string("\\(aq") : std::string(1, c));
    EXPECT_THAT(manual, HasSubstr("a blank or one of" + ends + ","));
}

} // namespace
