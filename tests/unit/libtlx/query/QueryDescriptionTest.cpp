// The fields of a description, and their merge.

#include <tlx/Query.h>

#include <gtest/gtest.h>

#include "DescribedQuery.h"
#include "support/Capture.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::described;
using QmTest::DISK;
using QmTest::numbered;
using QmTest::read;
using QmTest::written;

namespace {

// Fields.

TEST(QueryDescriptionTest, FieldsKeepTheirOrderAndAreFoundInAnyCase)
{
    const TlxQuery query = described(DISK);
    EXPECT_EQ(query.fields(), DISK);
    ASSERT_NE(query.field("ReadOnly"), nullptr);
    EXPECT_EQ(*query.field("ReadOnly"), DISK[3]);
    EXPECT_EQ(query.field("nowhere"), nullptr);
    EXPECT_FALSE(query.isEmpty());
    EXPECT_TRUE(TlxQuery(0).isEmpty());
}

TEST(QueryDescriptionTest, ANameOfAFieldCanStandInAnExpression)
{
    for (const char* name : {"a", "_", "a1", "a-b", "a.b_c", "Android", "ORDER"})
        EXPECT_TRUE(TlxQuery::isFieldName(name)) << name;
    EXPECT_TRUE(TlxQuery::isFieldName(std::string(QUERY_MAX_NAME, 'x')));
    for (const char* name : {"", "1a", "-a", ".a", "a b", "a=b", "caf\xC3\xA9", "and", "OR", "Not",
                             "like", "true", "FALSE", "a\n"})
        EXPECT_FALSE(TlxQuery::isFieldName(name)) << name;
    EXPECT_FALSE(TlxQuery::isFieldName(std::string(QUERY_MAX_NAME + 1, 'x')));
}

TEST(QueryDescriptionTest, AFieldBeyondABoundChangesNothing)
{
    TlxQuery query = described(DISK);
    EXPECT_FALSE(query.addField({"a b"}));
    EXPECT_FALSE(query.addField({std::string(QUERY_MAX_NAME + 1, 'x')}));
    EXPECT_FALSE(query.addField({"x", QF_TEXT, std::string(QUERY_MAX_TEXT + 1, 'x')}));
    EXPECT_FALSE(query.addField({"x", QF_TEXT, "", {std::string(QUERY_MAX_TEXT + 1, 'x')}}));
    EXPECT_FALSE(query.addField({"x", QF_TEXT, "", numbered(0, QUERY_MAX_VALUES + 1)}));
    EXPECT_EQ(query.fields(), DISK);
    EXPECT_TRUE(query.addField({std::string(QUERY_MAX_NAME, 'x'), QF_TEXT,
                                std::string(QUERY_MAX_TEXT, 'x'), numbered(0, QUERY_MAX_VALUES)}));
    EXPECT_TRUE(query.addField({"x", QF_TEXT, "", {std::string(QUERY_MAX_TEXT, 'x')}}));
}

TEST(QueryDescriptionTest, ThereAreAtMostSoManyFields)
{
    TlxQuery query;
    for (std::size_t i = 0; i < QUERY_MAX_FIELDS; ++i)
        ASSERT_TRUE(query.addField({"f" + std::to_string(i)}));
    EXPECT_FALSE(query.addField({"another"}));
    EXPECT_TRUE(query.addField({"F0", QF_TEXT, "known"}));
    EXPECT_EQ(query.fields().size(), QUERY_MAX_FIELDS);
    EXPECT_EQ(query.field("f0")->description, TlxString("known"));
}

TEST(QueryDescriptionTest, WhatXmlCannotCarryIsReplaced)
{
    TlxQuery query;
    ASSERT_TRUE(query.addField({"x", QF_TEXT, "a\x01\xFF", {"b\x02", "b\x03", "c\xEF\xBF\xBE"}}));
    EXPECT_EQ(query.fields()[0].description, TlxString("a\xEF\xBF\xBD\xEF\xBF\xBD"));
    EXPECT_EQ(query.fields()[0].values, (std::vector<TlxString>{"b\xEF\xBF\xBD", "c\xEF\xBF\xBD"}));
    EXPECT_EQ(*read(written(query)), query);
}

// Merge.

TEST(QueryMergeTest, TheUnionOfWhatMayBeAsked)
{
    TlxQuery query = described({DISK[0], DISK[1]});
    query.merge(described({DISK[1], DISK[2], DISK[3]}));
    EXPECT_EQ(query.fields(), DISK);
    query.merge(TlxQuery(0));
    EXPECT_EQ(query.fields(), DISK);
    TlxQuery empty;
    empty.merge(query);
    EXPECT_EQ(empty.fields(), DISK);
    query.merge(query);
    EXPECT_EQ(query.fields(), DISK);
}

TEST(QueryMergeTest, TheSameFieldIsThereOnceWhateverItsCase)
{
    TlxQuery query = described({{"Size", QF_BYTES, "", {}}});
    query.merge(described({{"SIZE", QF_BYTES, "second", {}}, {"size", QF_BYTES, "third", {}}}));
    EXPECT_EQ(query.fields(), (std::vector<QueryField>{{"Size", QF_BYTES, "second", {}}}));
}

TEST(QueryMergeTest, TypesThatDifferAreNumbersOrTexts)
{
    const auto merged = [](QueryFieldType a, QueryFieldType b) {
        TlxQuery query = described({{"x", a}});
        query.merge(described({{"x", b}}));
        return query.fields()[0].type;
    };
    for (const auto type : {QF_TEXT, QF_NUMBER, QF_BYTES, QF_FLAG}) {
        EXPECT_EQ(merged(type, type), type);
        EXPECT_EQ(merged(type, QF_TEXT), QF_TEXT);
        EXPECT_EQ(merged(QF_TEXT, type), QF_TEXT);
    }
    EXPECT_EQ(merged(QF_BYTES, QF_NUMBER), QF_NUMBER);
    EXPECT_EQ(merged(QF_NUMBER, QF_BYTES), QF_NUMBER);
    EXPECT_EQ(merged(QF_FLAG, QF_NUMBER), QF_TEXT);
    EXPECT_EQ(merged(QF_BYTES, QF_FLAG), QF_TEXT);
}

TEST(QueryMergeTest, ValuesAreThoseOfBothOrAny)
{
    const auto merged = [](std::vector<TlxString> a, std::vector<TlxString> b) {
        TlxQuery query = described({{"x", QF_TEXT, "", std::move(a)}});
        query.merge(described({{"x", QF_TEXT, "", std::move(b)}}));
        return query.fields()[0].values;
    };
    EXPECT_EQ(merged({"b", "a"}, {"c", "a"}), (std::vector<TlxString>{"b", "a", "c"}));
    EXPECT_EQ(merged({}, {"c"}), std::vector<TlxString>{});
    EXPECT_EQ(merged({"c"}, {}), std::vector<TlxString>{});
    EXPECT_EQ(merged({"a", "b"}, {"a", "b"}), (std::vector<TlxString>{"a", "b"}));
    EXPECT_EQ(merged({"a", "b"}, {"a"}), (std::vector<TlxString>{"a", "b"}));
    EXPECT_EQ(merged({"a", "b"}, {"a", "b", "c"}), (std::vector<TlxString>{"a", "b", "c"}));
    EXPECT_EQ(merged({"a", "b"}, {"a", "c", "b"}), (std::vector<TlxString>{"a", "b", "c"}));
    EXPECT_EQ(merged(numbered(0, 200), numbered(56, 200)), numbered(0, 256));
    EXPECT_EQ(merged(numbered(0, 200), numbered(57, 200)), std::vector<TlxString>{});
}

TEST(QueryMergeTest, TheExpressionAndTheJobStayTheirOwners)
{
    const AutoDereference<JobExecInfo> job(new JobExecInfo({"job"}));
    TlxQuery other = described({DISK[1]});
    ASSERT_TRUE(other.setQuery("size > 5"));
    other.setJob(job.get());
    TlxQuery query;
    ASSERT_TRUE(query.setQuery("readonly"));
    query.merge(other);
    EXPECT_EQ(query.query(), TlxString("readonly"));
    EXPECT_EQ(query.job(), nullptr);
    EXPECT_EQ(query.fields(), std::vector<QueryField>{DISK[1]});
}

TEST(QueryMergeTest, WhatIsTooMuchIsLeftOutWithOneLine)
{
    QmTest::LogCapture log;
    TlxQuery query;
    TlxQuery other;
    for (std::size_t i = 0; i < 200; ++i) {
        ASSERT_TRUE(query.addField({"a" + std::to_string(i)}));
        ASSERT_TRUE(other.addField({"b" + std::to_string(i)}));
    }
    query.merge(other);
    query.merge(other); // logs it once
    EXPECT_EQ(query.fields().size(), QUERY_MAX_FIELDS);
    EXPECT_NE(query.field("b55"), nullptr);
    EXPECT_EQ(query.field("b56"), nullptr);
    EXPECT_EQ(log.texts(1), std::vector<std::string>{
                                "A part of a query description is not kept; fields left "
                                "out: 144, the first \"b56\": there are more than 256 fields"});
}

} // namespace
