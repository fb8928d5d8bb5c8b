// The language of queries.

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>

#include <pthread.h>

#include <tlx/Query.h>

using namespace Veltrane::Quillmark::Tlx;

namespace {

/// An item made of values; counts how often it is asked.
class Item : public QuerySource
{
  public:
    QueryValue valueOf(const std::string& field) const override
    {
        ++m_asked;
        const auto found = m_values.find(field);
        return found == m_values.end() ? QueryValue() : found->second;
    }
    std::map<std::string, QueryValue> m_values;
    mutable std::size_t m_asked = 0;
};

Item disk()
{
    Item item;
    item.m_values = {{"fstype", QueryValue::text("ext4")},
                     {"mount", QueryValue::text("/home/caf\xC3\xA9")},
                     {"label", QueryValue::text("a \"b\" 'c' \\d")},
                     {"empty", QueryValue::text("")},
                     {"host", QueryValue::text("123")},
                     {"answer", QueryValue::text("true")},
                     {"size", QueryValue::number(std::uint64_t{20} << 30)},
                     {"used", QueryValue::number(0)},
                     {"huge", QueryValue::number(UINT64_MAX)},
                     {"readonly", QueryValue::flag(false)},
                     {"local", QueryValue::flag(true)}};
    return item;
}

bool matches(const std::string& text)
{
    TlxQuery query;
    EXPECT_TRUE(query.setQuery(text)) << text << ": " << query.mistake().toText();
    return query.matches(disk());
}

std::string mistake(const std::string& text)
{
    TlxQuery query;
    EXPECT_FALSE(query.setQuery(text)) << text;
    EXPECT_TRUE(query.isEmpty());
    return query.mistake().toText();
}

std::string repeated(const std::string& text, std::size_t count)
{
    std::string result;
    for (std::size_t i = 0; i < count; ++i)
        result += text;
    return result;
}

// What can be asked.

TEST(QueryTest, TheExampleThatEverybodyReadsFirst)
{
    EXPECT_TRUE(matches("fstype = \"ext4\" and size > 10G and not readonly"));
    EXPECT_FALSE(matches("fstype = \"xfs\" and size > 10G and not readonly"));
    EXPECT_FALSE(matches("fstype = \"ext4\" and size > 20G and not readonly"));
    EXPECT_FALSE(matches("fstype = \"ext4\" and size > 10G and readonly"));
}

TEST(QueryTest, ATextOfWhiteSpaceAsksForNothingInParticular)
{
    for (const char* text : {"", " ", "\t\r\n "}) {
        EXPECT_TRUE(matches(text));
        TlxQuery query;
        EXPECT_TRUE(query.setQuery(text));
        EXPECT_TRUE(query.isEmpty());
        EXPECT_EQ(query.query(), TlxString());
    }
}

struct Comparison
{
    std::string name;
    std::string op;
    bool less, equal, greater; ///< the answers for an item that is so, seen from the literal
};

class QueryOperatorTest : public ::testing::TestWithParam<Comparison>
{
};

TEST_P(QueryOperatorTest, ComparesNumbersAndTexts)
{
    const auto [name, op, less, equal, greater] = GetParam();
    const std::string between = " " + op + " ";
    EXPECT_EQ(matches("size" + between + "21G"), less);
    EXPECT_EQ(matches("size" + between + "20G"), equal);
    EXPECT_EQ(matches("size" + between + "19G"), greater);
    EXPECT_EQ(matches("fstype" + between + "ext5"), less);
    EXPECT_EQ(matches("fstype" + between + "ext4"), equal);
    EXPECT_EQ(matches("fstype" + between + "ext3"), greater);
    EXPECT_EQ(matches("fstype" + between + "\"ext\""), greater);
}

TEST_P(QueryOperatorTest, NeedsNoBlanksAroundIt)
{
    const std::string op = GetParam().op;
    EXPECT_EQ(matches("size" + op + "20G"), GetParam().equal);
    EXPECT_EQ(matches("fstype" + op + "\"ext4\""), GetParam().equal);
    EXPECT_EQ(matches("(fstype\n" + op + "\text4)"), GetParam().equal);
}

TEST_P(QueryOperatorTest, AMissingFieldIsNeverTrue)
{
    const std::string asked = "nowhere " + GetParam().op + " ";
    EXPECT_FALSE(matches(asked + "5"));
    EXPECT_FALSE(matches(asked + "text"));
    EXPECT_FALSE(matches(asked + "true"));
    EXPECT_TRUE(matches("not " + asked + "5"));
}

TEST_P(QueryOperatorTest, ANumberIsComparedWithNumbersAlone)
{
    const std::string asked = "size " + GetParam().op + " ";
    EXPECT_FALSE(matches(asked + "\"20G\""));
    EXPECT_FALSE(matches(asked + "text"));
    EXPECT_FALSE(matches(asked + "true"));
}

TEST_P(QueryOperatorTest, ATextIsComparedWithTheSpellingOfNumbersAndFlags)
{
    const std::string op = GetParam().op;
    EXPECT_EQ(matches("host " + op + " 123"), GetParam().equal);
    // Byte by byte: "123" comes before "9" and before "124", after "1".
    EXPECT_EQ(matches("host " + op + " 9"), GetParam().less);
    EXPECT_EQ(matches("host " + op + " 1"), GetParam().greater);
    EXPECT_EQ(matches("answer " + op + " true"), GetParam().equal);
}

TEST_P(QueryOperatorTest, AFlagIsEqualOrUnequalToAFlag)
{
    const std::string op = GetParam().op;
    EXPECT_EQ(matches("local " + op + " true"), op == "=");
    EXPECT_EQ(matches("local " + op + " false"), op == "!=");
    EXPECT_FALSE(matches("local " + op + " \"true\""));
    EXPECT_FALSE(matches("local " + op + " 1"));
}

INSTANTIATE_TEST_SUITE_P(All, QueryOperatorTest,
                         ::testing::Values(Comparison{"Equal", "=", false, true, false},
                                           Comparison{"Unequal", "!=", true, false, true},
                                           Comparison{"Less", "<", true, false, false},
                                           Comparison{"LessOrEqual", "<=", true, true, false},
                                           Comparison{"Greater", ">", false, false, true},
                                           Comparison{"GreaterOrEqual", ">=", false, true, true}),
                         [](const auto& param) { return param.param.name; });

TEST(QueryTest, LikeComparesTextsWithAPattern)
{
    EXPECT_TRUE(matches("mount like /home/*"));
    EXPECT_TRUE(matches("mount like \"/home/*\""));
    EXPECT_TRUE(matches("mount like /home/caf?"));
    EXPECT_TRUE(matches("fstype like 'ext?'"));
    EXPECT_TRUE(matches("fstype like ext4"));
    EXPECT_FALSE(matches("fstype like ext"));
    EXPECT_FALSE(matches("fstype like EXT*"));
    EXPECT_FALSE(matches("mount like [/]*"));
    EXPECT_TRUE(matches("host like 1*"));
    EXPECT_TRUE(matches("host like 12?"));
    EXPECT_TRUE(matches("answer like true"));
    EXPECT_TRUE(matches("empty like \"\""));
    EXPECT_TRUE(matches("empty like *"));
    EXPECT_FALSE(matches("nowhere like *"));
    EXPECT_FALSE(matches("size like *"));
    EXPECT_FALSE(matches("readonly like *"));
    EXPECT_FALSE(matches("mount = /home/*")); // patterns are for like
}

TEST(QueryTest, AFieldByItselfIsAFlagThatIsTrue)
{
    EXPECT_TRUE(matches("local"));
    EXPECT_FALSE(matches("readonly"));
    EXPECT_FALSE(matches("nowhere"));
    EXPECT_FALSE(matches("size"));
    EXPECT_FALSE(matches("answer"));
    EXPECT_TRUE(matches("not nowhere"));
}

TEST(QueryTest, NotBindsTighterThanAndTighterThanOr)
{
    EXPECT_TRUE(matches("local or readonly and readonly"));
    EXPECT_FALSE(matches("(local or readonly) and readonly"));
    EXPECT_TRUE(matches("readonly and readonly or local"));
    EXPECT_FALSE(matches("readonly and (readonly or local)"));
    EXPECT_FALSE(matches("not local or readonly"));
    EXPECT_TRUE(matches("not readonly and local"));
    EXPECT_FALSE(matches("not (readonly or local)"));
    EXPECT_TRUE(matches("not readonly or local and readonly"));
    EXPECT_TRUE(matches("not not local"));
    EXPECT_FALSE(matches("not not not local"));
    EXPECT_TRUE(matches("not size < 5 and local"));
    EXPECT_TRUE(matches("local or readonly or readonly"));
    EXPECT_TRUE(matches("readonly or readonly or local"));
    EXPECT_FALSE(matches("local and local and readonly"));
}

TEST(QueryTest, KeywordsAndFieldsAreReadInAnyCase)
{
    EXPECT_TRUE(matches("FSType = ext4 AND NOT ReadOnly"));
    EXPECT_TRUE(matches("readonly Or LOCAL"));
    EXPECT_TRUE(matches("fstype LIKE ext* and Local = TRUE and readonly = False"));
    EXPECT_FALSE(matches("fstype = EXT4"));
}

TEST(QueryTest, AWordMayTouchWhatIsNoWord)
{
    EXPECT_TRUE(matches("not(readonly)and(local)"));
    EXPECT_TRUE(matches("fstype=\"ext4\"and local"));
    EXPECT_TRUE(matches("((local)or(readonly))"));
    EXPECT_TRUE(matches("  \n local \t "));
}

TEST(QueryTest, AWordThatOnlyBeginsWithAKeywordIsAnother)
{
    Item item;
    item.m_values = {{"order", QueryValue::flag(true)},
                     {"not-yet", QueryValue::flag(true)},
                     {"android", QueryValue::text("and-more")},
                     {"likely", QueryValue::text("trueish")}};
    for (const char* text : {"order", "not-yet", "android = and-more", "likely = trueish",
                             "not-yet and order", "android like and*"}) {
        TlxQuery query;
        ASSERT_TRUE(query.setQuery(text)) << query.mistake().toText();
        EXPECT_TRUE(query.matches(item)) << text;
    }
}

TEST(QueryTest, QuotedTextsMayHoldAnything)
{
    EXPECT_TRUE(matches(R"(label = "a \"b\" 'c' \\d")"));
    EXPECT_TRUE(matches(R"(label = 'a "b" \'c\' \\d')"));
    EXPECT_TRUE(matches("mount = \"/home/caf\xC3\xA9\""));
    EXPECT_TRUE(matches("mount = /home/caf\xC3\xA9"));
    EXPECT_TRUE(matches("empty = \"\""));
    EXPECT_TRUE(matches("empty = ''"));
    EXPECT_FALSE(matches("fstype = \"and\""));

    Item item;
    item.m_values = {{"text", QueryValue::text("a\tb\nc\rd(=)<>and")}};
    TlxQuery query;
    ASSERT_TRUE(query.setQuery("text = \"a\\tb\\nc\\rd(=)<>and\""));
    EXPECT_TRUE(query.matches(item));
    ASSERT_TRUE(query.setQuery("text = \"a\tb\nc\\rd(=)<>and\""));
    EXPECT_TRUE(query.matches(item));
}

TEST(QueryTest, UnitsArePowersOf1024InEitherCase)
{
    Item item;
    const auto holds = [&](std::uint64_t number, const std::string& literal) {
        item.m_values["n"] = QueryValue::number(number);
        TlxQuery query;
        EXPECT_TRUE(query.setQuery("n = " + literal)) << query.mistake().toText();
        return query.matches(item);
    };
    EXPECT_TRUE(holds(1024, "1K"));
    EXPECT_TRUE(holds(1024, "1k"));
    EXPECT_TRUE(holds(std::uint64_t{1} << 20, "1M"));
    EXPECT_TRUE(holds(std::uint64_t{1} << 30, "1g"));
    EXPECT_TRUE(holds(std::uint64_t{1} << 40, "1T"));
    EXPECT_TRUE(holds(std::uint64_t{1} << 50, "1P"));
    EXPECT_TRUE(holds(1536, "1.5K"));
    EXPECT_TRUE(holds(1610612736, "1.50G"));
    EXPECT_TRUE(holds(90, "90%"));
    EXPECT_TRUE(holds(0, "0"));
    EXPECT_TRUE(holds(7, "007"));
    EXPECT_TRUE(holds(0, "-0"));
    EXPECT_TRUE(holds(0, "0.0P"));
    EXPECT_FALSE(holds(1000, "1K"));
}

TEST(QueryTest, EveryNumberOf64BitsIsExact)
{
    EXPECT_TRUE(matches("huge = 18446744073709551615"));
    EXPECT_FALSE(matches("huge = 18446744073709551614"));
    EXPECT_TRUE(matches("huge > 18446744073709551614"));
    EXPECT_TRUE(matches("huge < 18446744073709551616"));
    EXPECT_TRUE(matches("huge < 99999999999999999999999999999999999999999999P"));
    EXPECT_TRUE(matches("used > -1"));
    EXPECT_TRUE(matches("used < 0.001"));
}

TEST(QueryTest, TheFieldsAskedAboutAreToldOnce)
{
    TlxQuery query;
    ASSERT_TRUE(query.setQuery("Size > 5 and (fstype = x or not ReadOnly) and size < 9"));
    EXPECT_EQ(query.fieldsAsked(), (std::vector<std::string>{"fstype", "readonly", "size"}));
    ASSERT_TRUE(query.setQuery(""));
    EXPECT_EQ(query.fieldsAsked(), std::vector<std::string>{});
}

TEST(QueryTest, ARefusedTextLeavesTheQueryAsItWas)
{
    TlxQuery query;
    ASSERT_TRUE(query.setQuery("local"));
    EXPECT_EQ(query.mistake(), QueryMistake{});
    EXPECT_EQ(query.mistake().toText(), "");
    EXPECT_FALSE(query.setQuery("local and"));
    EXPECT_EQ(query.mistake().column, 10u);
    EXPECT_EQ(query.query(), TlxString("local"));
    EXPECT_TRUE(query.matches(disk()));
    ASSERT_TRUE(query.setQuery("readonly"));
    EXPECT_EQ(query.mistake(), QueryMistake{});
    EXPECT_FALSE(query.matches(disk()));
}

TEST(QueryTest, ACopyAsksTheSame)
{
    TlxQuery query;
    ASSERT_TRUE(query.setQuery("readonly"));
    const TlxQuery copy(query);
    ASSERT_TRUE(query.setQuery("local"));
    EXPECT_FALSE(copy.matches(disk()));
    EXPECT_EQ(copy.query(), TlxString("readonly"));
    EXPECT_EQ(copy.referenceCount(), 1u);
}

TEST(QueryTest, AJobIsHeldWithAReferenceOfItsOwn)
{
    const AutoDereference<JobExecInfo> first(new JobExecInfo({"one"}));
    const AutoDereference<JobExecInfo> second(new JobExecInfo({"two"}));
    {
        TlxQuery query;
        EXPECT_EQ(query.job(), nullptr);
        query.setJob(first.get());
        EXPECT_EQ(first->referenceCount(), 2u);
        query.setJob(second.get());
        EXPECT_EQ(first->referenceCount(), 1u);
        EXPECT_EQ(query.job(), second.get());
    }
    EXPECT_EQ(second->referenceCount(), 1u);
}

// What cannot.

TEST(QueryMistakeTest, AnOperandIsMissing)
{
    EXPECT_EQ(mistake("local and"),
              "column 10: expected a field name, \"not\" or \"(\", found the end of the text");
    EXPECT_EQ(mistake("local or  "),
              "column 11: expected a field name, \"not\" or \"(\", found the end of the text");
    EXPECT_EQ(mistake("not"),
              "column 4: expected a field name, \"not\" or \"(\", found the end of the text");
    EXPECT_EQ(mistake("("),
              "column 2: expected a field name, \"not\" or \"(\", found the end of the text");
    EXPECT_EQ(mistake("()"), "column 2: expected a field name, \"not\" or \"(\", found \")\"");
    EXPECT_EQ(mistake(")"), "column 1: expected a field name, \"not\" or \"(\", found \")\"");
    EXPECT_EQ(mistake("and local"),
              "column 1: expected a field name, \"not\" or \"(\", found \"and\"");
    EXPECT_EQ(mistake("local and or local"),
              "column 11: expected a field name, \"not\" or \"(\", found \"or\"");
    EXPECT_EQ(mistake("= 5"), "column 1: expected a field name, \"not\" or \"(\", found \"=\"");
    EXPECT_EQ(mistake("10 < size"),
              "column 1: expected a field name, \"not\" or \"(\", found \"10\"");
    EXPECT_EQ(mistake("\"size\" > 10"),
              "column 1: expected a field name, \"not\" or \"(\", found a quotation mark");
    EXPECT_EQ(mistake("!local"), "column 1: expected a field name, \"not\" or \"(\", found \"!\"");
    EXPECT_EQ(mistake("true"), "column 1: expected a field name, \"not\" or \"(\", found \"true\"");
    EXPECT_EQ(mistake("like x"),
              "column 1: expected a field name, \"not\" or \"(\", found \"like\"");
    EXPECT_EQ(mistake("\xC3\xA9t\xC3\xA9 = 5"),
              "column 1: expected a field name, \"not\" or \"(\", found \"\xC3\xA9t\xC3\xA9\"");
}

TEST(QueryMistakeTest, AValueIsMissing)
{
    EXPECT_EQ(mistake("size >"), "column 7: expected a value, found the end of the text");
    EXPECT_EQ(mistake("size > and local"), "column 8: expected a value, found \"and\"");
    EXPECT_EQ(mistake("size = NOT"), "column 8: expected a value, found \"NOT\"");
    EXPECT_EQ(mistake("fstype = like"), "column 10: expected a value, found \"like\"");
    EXPECT_EQ(mistake("(size >)"), "column 8: expected a value, found \")\"");
    EXPECT_EQ(mistake("size == 5"), "column 7: expected a value, found \"=\"");
    EXPECT_EQ(mistake("size <> 5"), "column 7: expected a value, found \">\"");
    EXPECT_EQ(mistake("size = (5)"), "column 8: expected a value, found \"(\"");
}

TEST(QueryMistakeTest, APatternIsMissing)
{
    EXPECT_EQ(mistake("mount like"), "column 11: expected a pattern, found the end of the text");
    EXPECT_EQ(mistake("mount like or"), "column 12: expected a pattern, found \"or\"");
    EXPECT_EQ(mistake("mount like = x"), "column 12: expected a pattern, found \"=\"");
}

TEST(QueryMistakeTest, SomethingStandsWhereTheExpressionShouldGoOn)
{
    EXPECT_EQ(mistake("size 10"), "column 6: expected a comparison, \"and\", \"or\" or the end of "
                                  "the text, found \"10\"");
    EXPECT_EQ(mistake("size ! 10"), "column 6: expected a comparison, \"and\", \"or\" or the end "
                                    "of the text, found \"!\"");
    EXPECT_EQ(mistake("size > 10 G"),
              "column 11: expected \"and\", \"or\" or the end of the text, found \"G\"");
    EXPECT_EQ(mistake("fstype = ext4 local"),
              "column 15: expected \"and\", \"or\" or the end of the text, found \"local\"");
    EXPECT_EQ(mistake("fstype = \"a\"\"b\""),
              "column 13: expected \"and\", \"or\" or the end of the text, found a quotation mark");
    EXPECT_EQ(mistake("(local) 5"),
              "column 9: expected \"and\", \"or\" or the end of the text, found \"5\"");
    EXPECT_EQ(mistake("local)"), "column 6: expected a comparison, \"and\", \"or\" or the end of "
                                 "the text, found \")\"");
    EXPECT_EQ(mistake("local && local"), "column 7: expected a comparison, \"and\", \"or\" or the "
                                         "end of the text, found \"&&\"");
    EXPECT_EQ(mistake("size > 1 < 5"),
              "column 10: expected \"and\", \"or\" or the end of the text, found \"<\"");
}

TEST(QueryMistakeTest, AParenthesisIsNotClosed)
{
    EXPECT_EQ(mistake("(size > 5"),
              "column 10: expected \"and\", \"or\" or \")\", found the end of the text");
    EXPECT_EQ(mistake("(local"),
              "column 7: expected a comparison, \"and\", \"or\" or \")\", found the end of the "
              "text");
    EXPECT_EQ(mistake("(size > 5 local)"),
              "column 11: expected \"and\", \"or\" or \")\", found \"local\"");
    EXPECT_EQ(mistake("((local)"),
              "column 9: expected \"and\", \"or\" or \")\", found the end of the text");
}

TEST(QueryMistakeTest, AQuotationMarkIsNotClosed)
{
    EXPECT_EQ(mistake("fstype = \"ext4"),
              "column 15: expected the quotation mark that closes the one in column 10, found the "
              "end of the text");
    EXPECT_EQ(mistake("fstype = 'ext4\""),
              "column 16: expected the quotation mark that closes the one in column 10, found the "
              "end of the text");
    EXPECT_EQ(mistake("mount like \"\xC3\xA9\xC3\xA9\\\""),
              "column 17: expected the quotation mark that closes the one in column 12, found the "
              "end of the text");
}

TEST(QueryMistakeTest, AnEscapeIsUnknown)
{
    EXPECT_EQ(mistake("fstype = \"a\\x\""),
              "column 13: expected one of \" ' \\ n r t after \"\\\", found \"x\"");
    EXPECT_EQ(mistake("fstype = \"a\\"),
              "column 13: expected one of \" ' \\ n r t after \"\\\", found the end of the text");
}

TEST(QueryMistakeTest, WhatIsFoundIsTellableOnOneLine)
{
    const std::string expected = "column 12: expected one of \" ' \\ n r t after \"\\\", found ";
    EXPECT_EQ(mistake("fstype = \"\\\n\""), expected + "a line break");
    EXPECT_EQ(mistake("fstype = \"\\\r\""), expected + "a line break");
    EXPECT_EQ(mistake("fstype = \"\\\t\""), expected + "a blank");
    EXPECT_EQ(mistake("fstype = \"\\ \""), expected + "a blank");
}

TEST(QueryMistakeTest, ANumberIsNone)
{
    const std::string expected = "expected a number, as 10, 1.5G or 90% (a text that begins so "
                                 "stands in quotation marks), found ";
    EXPECT_EQ(mistake("size > 10X"), "column 8: " + expected + "\"10X\"");
    EXPECT_EQ(mistake("size > 10GB"), "column 8: " + expected + "\"10GB\"");
    EXPECT_EQ(mistake("size > 1,5"), "column 8: " + expected + "\"1,5\"");
    EXPECT_EQ(mistake("size > 1."), "column 8: " + expected + "\"1.\"");
    EXPECT_EQ(mistake("size > .5"), "column 8: " + expected + "\".5\"");
    EXPECT_EQ(mistake("size > -.5"), "column 8: " + expected + "\"-.5\"");
    EXPECT_EQ(mistake("size > 1.2.3"), "column 8: " + expected + "\"1.2.3\"");
    EXPECT_EQ(mistake("size > +5"), "column 8: " + expected + "\"+5\"");
    EXPECT_EQ(mistake("size > 1e5"), "column 8: " + expected + "\"1e5\"");
    EXPECT_EQ(mistake("size > 0x10"), "column 8: " + expected + "\"0x10\"");
    EXPECT_EQ(mistake("host = 10.0.0.1"), "column 8: " + expected + "\"10.0.0.1\"");
    EXPECT_EQ(mistake("size > " + repeated("9", 6000)),
              "column 8: " + expected + "\"" + repeated("9", 32) + "...\"");
}

TEST(QueryMistakeTest, ALongWordIsShownToItsBeginning)
{
    EXPECT_EQ(mistake("local " + repeated("\xC3\xA9", 33)),
              "column 7: expected a comparison, \"and\", \"or\" or the end of the text, found \"" +
                  repeated("\xC3\xA9", 32) + "...\"");
    EXPECT_EQ(mistake("local " + repeated("\xC3\xA9", 32)),
              "column 7: expected a comparison, \"and\", \"or\" or the end of the text, found \"" +
                  repeated("\xC3\xA9", 32) + "\"");
}

TEST(QueryMistakeTest, ColumnsCountCharacters)
{
    EXPECT_EQ(mistake("mount = \"\xE6\x97\xA5\xC3\xA9\" 5"),
              "column 14: expected \"and\", \"or\" or the end of the text, found \"5\"");
    EXPECT_EQ(mistake("local\nand\n)"),
              "column 11: expected a field name, \"not\" or \"(\", found \")\"");
}

TEST(QueryMistakeTest, WhatNoXmlCanCarryIsRefusedWhereverItStands)
{
    EXPECT_EQ(mistake("fstype = \"a\x01\""),
              "column 12: expected text, found the character U+0001");
    EXPECT_EQ(mistake(std::string("local\0", 6)),
              "column 6: expected text, found the character U+0000");
    EXPECT_EQ(mistake("fstype = \"\xC3\xA9\xFF\""),
              "column 12: expected UTF-8, found the byte 0xFF");
    EXPECT_EQ(mistake("fstype = \xC3"), "column 10: expected UTF-8, found the byte 0xC3");
    EXPECT_EQ(mistake("fstype = \"\xEF\xBF\xBE\""),
              "column 11: expected text, found the character U+FFFE");
}

TEST(QueryMistakeTest, AMistakeIsOneLine)
{
    for (const char* text :
         {"local \n\n and \r )", "size > \"a\nb", "size >\n10\t20", "size = \"\\\n\""})
        EXPECT_EQ(mistake(text).find_first_of("\r\n\t"), std::string::npos) << text;
}

// Bounds.

TEST(QueryBoundsTest, ATextHasItsGreatestLength)
{
    const std::string longest = "fstype=" + std::string(QUERY_MAX_LENGTH - 7, 'x');
    EXPECT_FALSE(matches(longest));
    EXPECT_EQ(mistake(longest + "x"), "column 65537: expected the end of the text, which has at "
                                      "most 65536 bytes");
}

TEST(QueryBoundsTest, ParenthesesAndNotAreCountedTogether)
{
    EXPECT_TRUE(matches(repeated("(", QUERY_MAX_DEPTH) + "local" + repeated(")", QUERY_MAX_DEPTH)));
    EXPECT_TRUE(matches(repeated("not ", QUERY_MAX_DEPTH) + "local"));
    EXPECT_EQ(mistake(repeated("(", QUERY_MAX_DEPTH + 1) + "local"),
              "column 101: expected at most 100 \"(\" and \"not\" inside one another");
    EXPECT_EQ(mistake(repeated("not ", QUERY_MAX_DEPTH + 1) + "local"),
              "column 401: expected at most 100 \"(\" and \"not\" inside one another");
    EXPECT_EQ(mistake(repeated("(not ", QUERY_MAX_DEPTH / 2) + "(local"),
              "column 251: expected at most 100 \"(\" and \"not\" inside one another");
}

TEST(QueryBoundsTest, WhatStandsSideBySideIsNotNested)
{
    EXPECT_TRUE(matches(repeated("(not readonly) and ", 1000) + "local"));
    EXPECT_TRUE(matches(repeated("not readonly and ", 1000) + "local"));
}

TEST(QueryBoundsTest, AMegabyteOfParenthesesIsRefused)
{
    const std::string bound = "column 65537: expected the end of the text, which has at most 65536 "
                              "bytes";
    EXPECT_EQ(mistake(std::string(1 << 20, '(')), bound);
    EXPECT_EQ(mistake(repeated("not ", 1 << 18)), bound);
    EXPECT_EQ(mistake(std::string(QUERY_MAX_LENGTH, '(')),
              "column 101: expected at most 100 \"(\" and \"not\" inside one another");
}

/// Runs in a thread whose stack is small.
void onASmallStack(void* (*work)(void*))
{
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 1 << 20), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, work, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

TEST(QueryBoundsTest, TheDeepestTextNeedsLittleStack)
{
    onASmallStack([](void*) -> void* {
        EXPECT_TRUE(matches(repeated("(not ", QUERY_MAX_DEPTH / 2) + "local" +
                            repeated(")", QUERY_MAX_DEPTH / 2)));
        EXPECT_TRUE(
            matches(repeated("(", QUERY_MAX_DEPTH) + "local" + repeated(")", QUERY_MAX_DEPTH)));
        return nullptr;
    });
}

TEST(QueryBoundsTest, AnItemIsAskedOnceForEveryComparison)
{
    TlxQuery query;
    ASSERT_TRUE(query.setQuery(repeated("local and ", 5000) + "local"));
    const Item item = disk();
    EXPECT_TRUE(query.matches(item));
    EXPECT_EQ(item.m_asked, 5001u);
}

TEST(QueryBoundsTest, TheWorstTextsAreReadInTimeThatGrowsWithTheirLength)
{
    // Each would take for ever if a second way were tried where the first one had failed.
    for (const std::string& text :
         {repeated("(", 99) + "local = )", repeated("not (", 50) + "x",
          "fstype = \"" + std::string(60000, '\\'), "size > " + std::string(60000, '1') + "x",
          std::string(60000, 'a') + " = !", repeated("a or b and ", 5000)})
        EXPECT_NE(mistake(text), "");
    EXPECT_FALSE(matches("mount like \"" + repeated("*a", 20000) + "\""));
}

} // namespace
