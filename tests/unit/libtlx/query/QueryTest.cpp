// The language of queries.

#include <tlx/Query.h>

#include <string>

#include <gtest/gtest.h>

#include "QueryItem.h"
#include "support/Text.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::disk;
using QmTest::Item;
using QmTest::matches;
using QmTest::mistake;

namespace {

TEST(QueryTest, TheExampleOfTheManualHolds)
{
    EXPECT_TRUE(matches("fstype = \"ext4\" and size > 10G and not readonly"));
    EXPECT_FALSE(matches("fstype = \"xfs\" and size > 10G and not readonly"));
    EXPECT_FALSE(matches("fstype = \"ext4\" and size > 20G and not readonly"));
    EXPECT_FALSE(matches("fstype = \"ext4\" and size > 10G and readonly"));
}

TEST(QueryTest, ATextOfWhiteSpaceMatchesEverything)
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
    bool less, equal, greater; ///< the results for an item that is less than the literal, and so on
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
    EXPECT_FALSE(matches("mount = /home/*")); // only "like" has patterns
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

TEST(QueryTest, WordsNeedNoBlanksBesideSigns)
{
    EXPECT_TRUE(matches("not(readonly)and(local)"));
    EXPECT_TRUE(matches("fstype=\"ext4\"and local"));
    EXPECT_TRUE(matches("((local)or(readonly))"));
    EXPECT_TRUE(matches("  \n local \t "));
}

TEST(QueryTest, AWordThatBeginsWithAKeywordIsAFieldName)
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

TEST(QueryTest, ACopyIsTheSameQuery)
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

} // namespace
