// What can be asked: descriptions, their merge, and the XML form of queries.

#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include <tlx/Query.h>

#include "support/Capture.h"
#include "support/XmlRecorder.h"

using namespace Veltrane::Quillmark::Tlx;

namespace {

/// A document that hands its query descriptions on, as documents do.
class Holder : public XmlDocumentInterface
{
  public:
    Holder() : XmlDocumentInterface(nullptr, "Holder") {}

    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override
    {
        if (m_context) {
            m_current->xmlStartElement(m_context.get(), name, attributes);
        } else if (XmlObjParseContext::isTag(name, TlxQuery::QUERY_DESCRIPTION_TAG)) {
            TlxQuery* query = nullptr;
            m_context.reset(xmlCreateObject(name, attributes, context, query));
            m_current.reset(query);
        }
    }
    void xmlCharacters(XmlObjParseContext*, const XMLCh* chars, unsigned long length) override
    {
        if (m_context)
            m_current->xmlCharacters(m_context.get(), chars, length);
    }
    int xmlEndElement(XmlObjParseContext*, const XMLCh* name) override
    {
        if (!m_context)
            return XML_COMPLETE;
        m_result = m_current->xmlEndElement(m_context.get(), name);
        if (m_result == XML_INSIDE)
            return XML_INSIDE;
        m_context.reset();
        m_query = m_current;
        return XML_INSIDE;
    }

    std::unique_ptr<XmlObjParseContext> m_context;
    AutoDereference<TlxQuery> m_current;
    AutoDereference<TlxQuery> m_query;
    int m_result = -1;
};

std::string written(const TlxQuery& query, XmlStr::Encoding encoding = XmlStr::XE_UTF8)
{
    std::ostringstream out;
    EXPECT_EQ(&query.writeXml(out, encoding), &out);
    return out.str();
}

AutoDereference<TlxQuery> read(const std::string& text, int result = XML_COMPLETE)
{
    Holder holder;
    EXPECT_TRUE(holder.parseBuffer("<Holder>" + text + "</Holder>"));
    EXPECT_EQ(holder.m_result, result) << text;
    EXPECT_TRUE(holder.m_query);
    return holder.m_query;
}

TlxQuery described(const std::vector<QueryField>& fields)
{
    TlxQuery query;
    for (const QueryField& field : fields)
        EXPECT_TRUE(query.addField(field)) << field.name;
    return query;
}

const std::vector<QueryField> DISK = {{"fstype", QF_TEXT, "kind of file system", {"ext4", "xfs"}},
                                      {"size", QF_BYTES, "how much it can hold"},
                                      {"full", QF_NUMBER},
                                      {"readonly", QF_FLAG, "", {"true", "false"}}};

std::vector<TlxString> numbered(std::size_t first, std::size_t count)
{
    std::vector<TlxString> result;
    for (std::size_t i = first; i < first + count; ++i)
        result.emplace_back("v" + std::to_string(i));
    return result;
}

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
    query.merge(other); // tells of it once
    EXPECT_EQ(query.fields().size(), QUERY_MAX_FIELDS);
    EXPECT_NE(query.field("b55"), nullptr);
    EXPECT_EQ(query.field("b56"), nullptr);
    EXPECT_EQ(log.texts(1), std::vector<std::string>{
                                "Not everything of a query description can be told; fields left "
                                "out: 144, the first \"b56\": there are more than 256 fields"});
}

// XML.

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
            EXPECT_EQ(back->fieldsAsked(), query.fieldsAsked());
            EXPECT_EQ(written(*back, encoding), written(query, encoding));
            EXPECT_EQ(back->referenceCount(), 1u);
        }
    }
}

TEST(QueryXmlTest, WhatIsWrittenInLatin1ReadsBackEqual)
{
    TlxQuery query;
    ASSERT_TRUE(query.setQuery("x = \"\xC3\xA9\xE6\x97\xA5\""));
    Holder holder;
    ASSERT_TRUE(holder.parseBuffer("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><Holder>" +
                                   written(query, XmlStr::XE_LATIN1) + "</Holder>"));
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
    Holder holder; // brings the XML library up, which a source needs
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
    EXPECT_EQ(log.texts(1), std::vector<std::string>{
                                "Not everything of a query description can be told; fields left "
                                "out: 2, the first \"\": its name is no name of a field"});
}

TEST(QueryXmlTest, ADescriptionWhoseExpressionIsNoneYieldsNothing)
{
    QmTest::LogCapture log;
    const auto query = read("<QueryDescription><Query>size &gt;</Query><Field Name='size'/>"
                            "</QueryDescription>",
                            XML_NOTHING);
    EXPECT_TRUE(query->isEmpty());
    EXPECT_EQ(log.texts(1),
              std::vector<std::string>{"Refused a query description, its query is none: column 7: "
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
                                "Not everything of a query description can be told; fields left "
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
                  std::vector<std::string>{
                      "Not everything of a query description can be told; fields left "
                      "out: 1, the first " +
                      reason});
        log.clear();
    }
    const std::string longQuery(QUERY_MAX_LENGTH + 1, 'x');
    read("<QueryDescription><Query>" + longQuery + "</Query></QueryDescription>", XML_NOTHING);
    EXPECT_EQ(log.texts(1), std::vector<std::string>{
                                "Refused a query description, its query is none: column 65537: "
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

TEST(QueryXmlTest, FieldsTooManyAreToldThoughTheFirstOnesMerge)
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
    EXPECT_EQ(log.texts(1), std::vector<std::string>{
                                "Not everything of a query description can be told; fields left "
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
                  "Not everything of a query description can be told; fields left out: 1, the "
                  "first \"a b\": its name is no name of a field; fields of more than 256 values, "
                  "which take any: 2, the first \"more\""});
}

TEST(QueryXmlTest, AValueToldAgainAndAgainIsOne)
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

/// Notes what a description holds besides.
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

TEST(QueryXmlTest, ADerivedClassIsToldOfElementsThatAreNotOurs)
{
    Holder holder;
    Extended extended;
    // The context of a plain query serves every class that derives from it.
    class Document : public Holder
    {
      public:
        explicit Document(Extended& query) : m_extended(query) {}
        void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                             AttributeList& attributes) override
        {
            Holder::xmlStartElement(context, name, attributes);
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
