#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "FilterParameters.h"
#include "support/Capture.h"

using namespace Veltrane::Quillmark::Tlx;
using namespace Veltrane::Quillmark::Tlx::DiscoverySvc;

namespace {

using Arguments = std::vector<std::string>;

constexpr const char* PROLOG = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

std::string written(const FilterParameters& parameters, XmlStr::Encoding encoding = XmlStr::XE_UTF8)
{
    std::ostringstream out;
    EXPECT_EQ(&parameters.writeXml(out, encoding), &out);
    return out.str();
}

AutoDereference<JobExecInfo> job(const Arguments& arguments)
{
    return AutoDereference<JobExecInfo>(new JobExecInfo(arguments));
}

class FilterParametersTest : public ::testing::Test
{
  protected:
    QmTest::LogCapture m_log;
    QmTest::AssertionCapture m_assertions;
};

TEST_F(FilterParametersTest, AsXml)
{
    EXPECT_EQ(written(FilterParameters(nullptr, "size > 10G")),
              std::string(PROLOG) + "<FilterParameters><QueryString>size &gt; 10G</QueryString>"
                                    "</FilterParameters>");
    EXPECT_EQ(
        written(FilterParameters(job({"backup", "full now", "<&>"}).get(), "a = \"\xC3\xA9\"")),
        std::string(PROLOG) +
            "<FilterParameters><QueryString>a = &quot;\xC3\xA9&quot;</QueryString>"
            "<JobExecInfo>backup &quot;full now&quot; &lt;&amp;&gt;</JobExecInfo>"
            "</FilterParameters>");
    EXPECT_EQ(written(FilterParameters(nullptr, "a = \xC3\xA9"), XmlStr::XE_ASCII),
              "<?xml version=\"1.0\" encoding=\"US-ASCII\"?><FilterParameters><QueryString>a = "
              "&#233;</QueryString></FilterParameters>");
}

TEST_F(FilterParametersTest, AnEmptyQueryStringWritesNothingAtAllEvenWhenAJobIsHeld)
{
    EXPECT_EQ(written(FilterParameters(job({"backup"}).get(), "")), "");
    EXPECT_EQ(written(FilterParameters(job({"backup"}).get(), nullptr)), "");
    EXPECT_EQ(written(FilterParameters(nullptr, nullptr)), "");
    EXPECT_EQ(written(FilterParameters("")), "");
}

TEST_F(FilterParametersTest, AJobWithoutArgumentsIsAJob)
{
    const std::string text = written(FilterParameters(job({}).get(), "a"));
    EXPECT_EQ(text, std::string(PROLOG) + "<FilterParameters><QueryString>a</QueryString>"
                                          "<JobExecInfo></JobExecInfo></FilterParameters>");
    const FilterParameters back(text.c_str());
    ASSERT_NE(back.job(), nullptr);
    EXPECT_EQ(back.job()->arguments(), Arguments{});
}

TEST_F(FilterParametersTest, WhatIsWrittenReadsBack)
{
    const Arguments arguments{"backup", "a b",      "it's", "say \"x\"", "",
                              "<&>",    "\xC3\xA9", "#",    "\\"};
    const char* const query = " a = \"<&>\r\n\t\xE6\x97\xA5\" and b ";
    for (const auto encoding : {XmlStr::XE_UTF8, XmlStr::XE_ASCII}) {
        const std::string text = written(FilterParameters(job(arguments).get(), query), encoding);
        const FilterParameters back(text.c_str());
        EXPECT_EQ(back.queryString(), TlxString(query));
        ASSERT_NE(back.job(), nullptr);
        EXPECT_EQ(back.job()->arguments(), arguments);
        EXPECT_EQ(back.job()->referenceCount(), 1u);
        EXPECT_EQ(written(back, encoding), text);
    }
    EXPECT_EQ(m_log.texts(1), std::vector<std::string>{});
}

TEST_F(FilterParametersTest, AQuotedArgumentWithBlanksYieldsOneArgument)
{
    const FilterParameters parameters(
        "<FilterParameters><JobExecInfo>backup --level \"full now\" 'x  y'</JobExecInfo>"
        "</FilterParameters>");
    ASSERT_NE(parameters.job(), nullptr);
    EXPECT_EQ(parameters.job()->arguments(), (Arguments{"backup", "--level", "full now", "x  y"}));
    EXPECT_EQ(parameters.queryString(), TlxString());
}

TEST_F(FilterParametersTest, ACommandLineDoesNotReadOurEnvironment)
{
    ASSERT_EQ(::setenv("QM_FILTER_TEST", "secret", 1), 0);
    const FilterParameters parameters(
        "<FilterParameters><JobExecInfo>$QM_FILTER_TEST</JobExecInfo></FilterParameters>");
    ASSERT_NE(parameters.job(), nullptr);
    EXPECT_EQ(parameters.job()->arguments(), Arguments{"$QM_FILTER_TEST"});
}

TEST_F(FilterParametersTest, ALaterElementReplacesAnEarlierOne)
{
    const FilterParameters parameters(
        "<FilterParameters><QueryString>a</QueryString><JobExecInfo>one</JobExecInfo>"
        "<QueryString>b</QueryString><JobExecInfo>two</JobExecInfo></FilterParameters>");
    EXPECT_EQ(parameters.queryString(), TlxString("b"));
    ASSERT_NE(parameters.job(), nullptr);
    EXPECT_EQ(parameters.job()->arguments(), Arguments{"two"});
}

TEST_F(FilterParametersTest, TheDocumentElementMayHaveAnyName)
{
    EXPECT_EQ(FilterParameters("<Anything><QueryString>a</QueryString></Anything>").queryString(),
              TlxString("a"));
    EXPECT_EQ(FilterParameters("<QueryString>a</QueryString>").queryString(), TlxString());
    EXPECT_EQ(
        FilterParameters("<QueryString><QueryString>a</QueryString></QueryString>").queryString(),
        TlxString("a"));
}

TEST_F(FilterParametersTest, UnknownElementsAreSkippedWhole)
{
    const FilterParameters parameters(
        "<FilterParameters>\n<Other><QueryString>x</QueryString></Other>\n"
        "<QueryString>a<JobExecInfo>x</JobExecInfo><b/> = 1</QueryString>\n text "
        "<JobExecInfo>one<QueryString>x</QueryString> two</JobExecInfo>\n</FilterParameters>");
    EXPECT_EQ(parameters.queryString(), TlxString("a = 1"));
    ASSERT_NE(parameters.job(), nullptr);
    EXPECT_EQ(parameters.job()->arguments(), (Arguments{"one", "two"}));
}

TEST_F(FilterParametersTest, AnUnreadableDocumentLeavesTheParametersEmpty)
{
    for (const char* text :
         {"no document", "<FilterParameters>",
          "<FilterParameters><QueryString>a</QueryString>"
          "<JobExecInfo>one</JobExecInfo>",
          "<FilterParameters><QueryString>a</QueryString><JobExecInfo>one</FilterParameters>"}) {
        m_log.clear();
        const FilterParameters parameters(text);
        EXPECT_EQ(parameters.queryString(), TlxString()) << text;
        EXPECT_EQ(parameters.job(), nullptr) << text;
        EXPECT_EQ(m_log.texts(1).size(), 1u) << text;
    }
    m_log.clear();
    const FilterParameters entities(
        "<!DOCTYPE d [<!ENTITY e SYSTEM \"file:///etc/passwd\">]><FilterParameters><QueryString>"
        "&e;</QueryString></FilterParameters>");
    EXPECT_EQ(entities.queryString(), TlxString());
}

TEST_F(FilterParametersTest, NoTextIsNoFilterAndNoFailure)
{
    for (const char* text : {"", static_cast<const char*>(nullptr)}) {
        const FilterParameters parameters(text);
        EXPECT_EQ(parameters.queryString(), TlxString());
        EXPECT_EQ(parameters.job(), nullptr);
    }
    EXPECT_EQ(m_log.texts(1), std::vector<std::string>{});
}

TEST_F(FilterParametersTest, TheJobIsHeldWithAReferenceOfItsOwn)
{
    const auto held = job({"backup"});
    {
        const FilterParameters parameters(held.get(), "a");
        EXPECT_EQ(held->referenceCount(), 2u);
        EXPECT_EQ(parameters.job(), held.get());
    }
    EXPECT_EQ(held->referenceCount(), 1u);
}

TEST_F(FilterParametersTest, AQueryIsSetWithItsJob)
{
    const auto former = job({"former"});
    const auto held = job({"backup"});
    TlxQuery query;
    query.setJob(former.get());
    EXPECT_TRUE(FilterParameters(held.get(), "size > 5").setQuery(query));
    EXPECT_EQ(query.query(), TlxString("size > 5"));
    EXPECT_EQ(query.job(), held.get());
    EXPECT_EQ(held->referenceCount(), 2u);
    EXPECT_EQ(former->referenceCount(), 1u);

    // The broken query is refused, but the query still gets the job.
    EXPECT_FALSE(FilterParameters(nullptr, "size >").setQuery(query));
    EXPECT_EQ(query.mistake().toText(), "column 7: expected a value, found the end of the text");
    EXPECT_EQ(query.query(), TlxString("size > 5"));
    EXPECT_EQ(query.job(), nullptr);
    EXPECT_EQ(held->referenceCount(), 1u);

    EXPECT_TRUE(FilterParameters(nullptr, nullptr).setQuery(query));
    EXPECT_TRUE(query.isEmpty());
}

TEST_F(FilterParametersTest, TheContextStartsBeforeTheDocument)
{
    FilterParameters parameters(nullptr, nullptr);
    const std::unique_ptr<XmlObjParseContext> context(
        parameters.getObjParseContext(TlxString("FilterParameters").toXmlCh().c_str()));
    const auto* state = dynamic_cast<FilterParametersContext*>(context.get());
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->m_state, 0);
}

TEST_F(FilterParametersTest, AnotherContextIsReportedAndNothingHappens)
{
    FilterParameters parameters(nullptr, "a");
    const auto name = TlxString("QueryString").toXmlCh();
    XmlObjParseContext plain(name.c_str());
    EXPECT_EQ(parameters.xmlEndElement(&plain, name.c_str()), XML_COMPLETE);
    EXPECT_EQ(m_assertions.texts(), std::vector<std::string>{"ctxt"});
    EXPECT_EQ(parameters.queryString(), TlxString("a"));
}

} // namespace
