// The XML form of queries.

#include <tlx/Query.h>

#include <memory>
#include <sstream>

#include <gtest/gtest.h>

#include "DescribedQuery.h"
#include "QueryItem.h"
#include "support/Capture.h"
#include "support/XmlRecorder.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::described;
using QmTest::DISK;
using QmTest::numbered;
using QmTest::QueryHolder;
using QmTest::read;
using QmTest::written;

namespace {

TEST(QueryXmlTest, AsXml)
{
    TlxQuery query = described(DISK);
    ASSERT_TRUE(query.setQuery("size > 10G"));
    EXPECT_EQ(written(query),
              "<QueryDescription><Query>size &gt; 10G</Query>"
              "<Field Name=\"fstype\" Type=\"text\"><Description>kind of file system</Description>"
              "<Value>ext4</Value><Value>xfs</Value></Field>"
              "<Field Name=\"size\" Type=\"bytes\"><Description>how much it can hold</Description>"
              "</Field><Field Name=\"full\" Type=\"number\"></Field>"
              "<Field Name=\"readonly\" Type=\"flag\"><Value>true</Value><Value>false</Value>"
              "</Field></QueryDescription>");
    EXPECT_EQ(written(TlxQuery(0)), "<QueryDescription></QueryDescription>");
}

TEST(QueryXmlTest, WhatIsWrittenReadsBackEqual)
{
    TlxQuery odd;
    ASSERT_TRUE(
        odd.addField({"X", QF_TEXT, " <&>\"'\r\n\t\xC3\xA9\xE6\x97\xA5 ", {"", " ", "\r", "]]>"}}));
    ASSERT_TRUE(odd.setQuery(" x = \"<&>\r\n\t\xC3\xA9\xF0\x9F\x98\x80\" and x != ']]>' \n"));
    TlxQuery asked;
    ASSERT_TRUE(asked.setQuery("fstype = \"ext4\" and size > 10G and not readonly"));
    for (const TlxQuery& query : {TlxQuery(0), described(DISK), asked, odd}) {
        for (const auto encoding : {XmlStr::XE_UTF8, XmlStr::XE_ASCII}) {
            const auto back = read(written(query, encoding));
            EXPECT_EQ(*back, query) << written(query);
            EXPECT_EQ(back->matches(QmTest::disk()), query.matches(QmTest::disk()));
            EXPECT_EQ(written(*back, encoding), written(query, encoding));
            EXPECT_EQ(back->referenceCount(), 1u);
        }
    }
}

TEST(QueryXmlTest, WhatIsWrittenInAsciiReadsBackEqual)
{
    TlxQuery query;
    ASSERT_TRUE(query.setQuery("x = \"\xC3\xA9\xE6\x97\xA5\""));
    QueryHolder holder;
    ASSERT_TRUE(holder.parseBuffer("<?xml version=\"1.0\" encoding=\"US-ASCII\"?><Holder>" +
                                   written(query, XmlStr::XE_ASCII) + "</Holder>"));
    ASSERT_TRUE(holder.m_query);
    EXPECT_EQ(*holder.m_query, query);
}

TEST(QueryXmlTest, WhiteSpaceBetweenElementsMakesNoDifference)
{
    TlxQuery query = described(DISK);
    ASSERT_TRUE(query.setQuery("size > 10G"));
    std::string text = written(query);
    for (std::size_t at = 0; (at = text.find("><", at)) != std::string::npos; at += 2)
        text.insert(at + 1, "\n  ");
    EXPECT_EQ(*read(text), query);
}

TEST(QueryXmlTest, TextInPiecesComesOutWhole)
{
    TlxQuery query = described(DISK);
    ASSERT_TRUE(query.setQuery("fstype = \"\xC3\xA9<\""));
    QueryHolder holder; // it initialises the XML library for the source
    QmTest::PiecewiseSource source("<Holder>" + written(query) + "</Holder>", 1);
    ASSERT_TRUE(holder.parse(source));
    ASSERT_TRUE(holder.m_query);
    EXPECT_EQ(*holder.m_query, query);
}

TEST(QueryXmlTest, UnknownElementsAreSkippedWhole)
{
    const auto query =
        read("<QueryDescription><Other><Query>readonly</Query></Other>"
             "<Query>si<b>x<Field Name='y'/></b>ze</Query>"
             "<Field Name='size' Type='bytes' More='1'><Description>a<Value>v</Value>b"
             "</Description><Query>q</Query></Field>"
             "<Value>v</Value><QueryDescription><Field Name='x'/></QueryDescription>"
             "</QueryDescription>");
    EXPECT_EQ(query->query(), TlxString("size"));
    EXPECT_EQ(query->fields(), (std::vector<QueryField>{{"size", QF_BYTES, "ab", {}}}));
}

TEST(QueryXmlTest, AnUnknownTypeIsText)
{
    const auto query = read("<QueryDescription><Field Name='a' Type='date'/><Field Name='b'/>"
                            "<Field Name='c' Type='BYTES'/></QueryDescription>");
    EXPECT_EQ(query->fields(), (std::vector<QueryField>{{"a"}, {"b"}, {"c"}}));
}

TEST(QueryXmlTest, AFieldWithoutANameIsLeftOutWithOneLine)
{
    QmTest::LogCapture log;
    const auto query = read("<QueryDescription><Field/><Field Name='a b'/><Field Name='ok'/>"
                            "</QueryDescription>");
    EXPECT_EQ(query->fields(), std::vector<QueryField>{{"ok"}});
    EXPECT_EQ(log.texts(1),
              std::vector<std::string>{"A part of a query description is not kept; fields left "
                                       "out: 2, the first \"\": its name is not a field name"});
}

TEST(QueryXmlTest, ADescriptionWithABrokenExpressionYieldsNothing)
{
    QmTest::LogCapture log;
    const auto query = read("<QueryDescription><Query>size &gt;</Query><Field Name='size'/>"
                            "</QueryDescription>",
                            XML_NOTHING);
    EXPECT_TRUE(query->isEmpty());
    EXPECT_EQ(log.texts(1),
              std::vector<std::string>{
                  "Refused a query description, because its query is wrong: column 7: "
                  "expected a value, found the end of the text"});
}

TEST(QueryXmlTest, ReadingIsBounded)
{
    QmTest::LogCapture log;
    std::string text = "<QueryDescription>";
    for (std::size_t i = 0; i < 2 * QUERY_MAX_FIELDS; ++i)
        text += "<Field Name='f" + std::to_string(i) + "'/>";
    EXPECT_EQ(read(text + "</QueryDescription>")->fields().size(), QUERY_MAX_FIELDS);
    EXPECT_EQ(log.texts(1), std::vector<std::string>{
                                "A part of a query description is not kept; fields left "
                                "out: 256, the first \"f256\": there are more than 256 fields"});
    log.clear();

    const std::string longText(QUERY_MAX_TEXT + 1, 'x');
    const std::string longName(QUERY_MAX_NAME + 1, 'x');
    for (const auto& [field, reason] : std::vector<std::pair<std::string, std::string>>{
             {"<Field Name='d'><Description>" + longText + "</Description></Field>",
              "\"d\": its description has more than 1024 bytes"},
             {"<Field Name='v'><Value>" + longText + "</Value></Field>",
              "\"v\": a value of it has more than 1024 bytes"},
             {"<Field Name='" + longName + "'/>",
              "\"" + longName.substr(1) + "...\": its name has more than 64 bytes"}}) {
        EXPECT_TRUE(read("<QueryDescription>" + field + "</QueryDescription>")->isEmpty());
        EXPECT_EQ(log.texts(1),
                  std::vector<std::string>{"A part of a query description is not kept; fields left "
                                           "out: 1, the first " +
                                           reason});
        log.clear();
    }
    const std::string longQuery(QUERY_MAX_LENGTH + 1, 'x');
    read("<QueryDescription><Query>" + longQuery + "</Query></QueryDescription>", XML_NOTHING);
    EXPECT_EQ(log.texts(1),
              std::vector<std::string>{
                  "Refused a query description, because its query is wrong: column 65537: "
                  "expected the end of the text, which has at most 65536 bytes"});
}

/// The elements of a field with the values of a range.
std::string fieldOf(const std::string& name, std::size_t first, std::size_t count)
{
    std::string text = "<Field Name='" + name + "'>";
    for (const TlxString& value : numbered(first, count))
        text += "<Value>" + value.utf8() + "</Value>";
    return text + "</Field>";
}

TEST(QueryXmlTest, FieldsOfOneNameAreMergedBeforeTheyAreCounted)
{
    QmTest::LogCapture log;
    std::string text;
    for (std::size_t i = 0; i < 2 * QUERY_MAX_FIELDS; ++i)
        text += fieldOf("same", i / 8, 2);
    text += fieldOf("last", 0, 1);
    const auto query = read("<QueryDescription>" + text + "</QueryDescription>");
    EXPECT_EQ(query->fields(), (std::vector<QueryField>{{"same", QF_TEXT, "", numbered(0, 65)},
                                                        {"last", QF_TEXT, "", numbered(0, 1)}}));
    EXPECT_EQ(log.texts(1), std::vector<std::string>{});
}

TEST(QueryXmlTest, TooManyFieldsAreReportedEvenIfTheFirstOnesMerge)
{
    QmTest::LogCapture log;
    std::string text;
    for (int round = 0; round < 2; ++round)
        for (std::size_t i = 0; i < QUERY_MAX_FIELDS - 1; ++i)
            text += "<Field Name='f" + std::to_string(i) + "'/>";
    text +=
        fieldOf("listed", 0, 1) + "<Field Name='a'/><Field Name='b'/>" + fieldOf("LISTED", 1, 1);
    const auto query = read("<QueryDescription>" + text + "</QueryDescription>");
    EXPECT_EQ(query->fields().size(), QUERY_MAX_FIELDS);
    EXPECT_EQ(query->fields().back(), (QueryField{"listed", QF_TEXT, "", numbered(0, 2)}))
        << "what comes after the bound is merged as well";
    EXPECT_EQ(log.texts(1),
              std::vector<std::string>{"A part of a query description is not kept; fields left "
                                       "out: 2, the first \"a\": there are more than 256 fields"});
}

TEST(QueryXmlTest, AFieldOfTooManyValuesTakesAny)
{
    QmTest::LogCapture log;
    const auto query = read(
        "<QueryDescription>" + fieldOf("full", 0, QUERY_MAX_VALUES) +
        fieldOf("more", 0, QUERY_MAX_VALUES + 1) + fieldOf("most", 0, 3 * QUERY_MAX_VALUES) +
        fieldOf("a b", 0, 3 * QUERY_MAX_VALUES) + fieldOf("More", 0, 1) + "</QueryDescription>");
    EXPECT_EQ(query->fields(),
              (std::vector<QueryField>{
                  {"full", QF_TEXT, "", numbered(0, QUERY_MAX_VALUES)}, {"more"}, {"most"}}));
    EXPECT_EQ(log.texts(1),
              std::vector<std::string>{
                  "A part of a query description is not kept; fields left out: 1, the "
                  "first \"a b\": its name is not a field name; fields of more than 256 values, "
                  "which take any: 2, the first \"more\""});
}

TEST(QueryXmlTest, RepeatedValuesAreOneValue)
{
    QmTest::LogCapture log;
    std::string text = "<Field Name='f'>";
    for (std::size_t i = 0; i < 3 * QUERY_MAX_VALUES; ++i)
        text += "<Value>" + std::to_string(i * i % 7) + "</Value>";
    const auto query =
        read("<QueryDescription>" + text + "<Value>last</Value></Field></QueryDescription>");
    EXPECT_EQ(query->fields(),
              (std::vector<QueryField>{{"f", QF_TEXT, "", {"0", "1", "4", "2", "last"}}}));
    EXPECT_EQ(log.texts(1), std::vector<std::string>{});
}

/// Keeps the other elements of a description.
class Extended : public TlxQuery
{
  public:
    void userOperation(const XMLCh* name, AttributeList& attributes) override
    {
        m_seen +=
            TlxString::fromXmlCh(name).utf8() + "=" + xmlAttribute(attributes, "V").utf8() + " ";
    }
    std::string m_seen;
};

TEST(QueryXmlTest, ADerivedClassGetsUnknownElements)
{
    QueryHolder holder;
    Extended extended;
    // Every class that derives from a query can use the context of a plain query.
    class Document : public QueryHolder
    {
      public:
        explicit Document(Extended& query) : m_extended(query) {}
        void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                             AttributeList& attributes) override
        {
            QueryHolder::xmlStartElement(context, name, attributes);
            if (XmlObjParseContext::isTag(name, TlxQuery::QUERY_DESCRIPTION_TAG))
                m_current.refObject(&m_extended);
        }
        Extended& m_extended;
    } document(extended);
    ASSERT_TRUE(document.parseBuffer("<Holder><QueryDescription><Limit V='5'><Limit V='6'/></Limit>"
                                     "<Field Name='a'><Hint V='h'/></Field></QueryDescription>"
                                     "</Holder>"));
    EXPECT_EQ(extended.m_seen, "Limit=5 Hint=h ");
    EXPECT_EQ(extended.fields(), std::vector<QueryField>{{"a"}});
}

TEST(QueryXmlTest, AnotherContextIsReportedAndNothingHappens)
{
    QmTest::AssertionCapture assertions;
    TlxQuery query = described(DISK);
    const auto name = TlxString(TlxQuery::QUERY_DESCRIPTION_TAG).toXmlCh();
    XmlObjParseContext plain(name.c_str());
    EXPECT_EQ(query.xmlEndElement(&plain, name.c_str()), XML_NOTHING);
    EXPECT_EQ(query.xmlEndElement(nullptr, name.c_str()), XML_NOTHING);
    query.xmlCharacters(nullptr, name.c_str(), 1);
    EXPECT_EQ(assertions.texts(), (std::vector<std::string>{"ctxt", "ctxt"}));
    EXPECT_EQ(query.fields(), DISK);
}

} // namespace
