// The explorer model and the default parser of explorer data.

#include <sstream>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "BoundReference.h"
#include "ExplorerFixture.h"
#include "RemoteExplorerPull.h"
#include "support/Capture.h"
#include "support/ChildProcess.h"
#include "support/NameOnly.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::Calls;
using QmTest::FakePush;
using QmTest::LogCapture;

std::string startTag(const std::string& name, XmlStr::Encoding encoding = XmlStr::XE_UTF8)
{
    const AutoDereference<FakePush> explorer(new FakePush(name));
    std::ostringstream out;
    EXPECT_EQ(&explorer->appendExplorerDataStartTag(out, encoding), &out);
    return out.str();
}

TEST(ExplorerTest, ItsBlockHasItsName)
{
    EXPECT_EQ(startTag("Files"), "<ExplorerData Name=\"Files\">");
    std::ostringstream out;
    EXPECT_EQ(&Explorer::appendExplorerDataEndTag(out), &out);
    EXPECT_EQ(out.str(), "</ExplorerData>");
}

TEST(ExplorerTest, ItsNameIsEscapedForTheEncoding)
{
    EXPECT_EQ(startTag("a\"b&c"), "<ExplorerData Name=\"a&quot;b&amp;c\">");
    EXPECT_EQ(startTag("é", XmlStr::XE_ASCII), "<ExplorerData Name=\"&#233;\">");
}

TEST(ExplorerTest, BaseDataIsParsedAndWritesNothing)
{
    const AutoDereference<ExplorerData> data(new ExplorerData);
    std::ostringstream out;
    EXPECT_TRUE(data->isParsed());
    EXPECT_EQ(&data->writeXml(out, XmlStr::XE_UTF8), &out);
    EXPECT_EQ(out.str(), "");
}

TEST(ExplorerTest, TheBaseOperationsReturnForObjects)
{
    struct Plain : virtual Explorer
    {
        const char* getExplorerName() const override { return "plain"; }
    };
    const AutoDereference<Plain> explorer(new Plain);
    const EngineContext context(true);
    AutoDereference<TLXRefCounted> state;
    explorer->startExploration(context, Authority("a", AT_QMKCLIENT), Subject("s"), state, nullptr);
    explorer->stopExploration(Authority("a", AT_QMKCLIENT), Subject("s"), state);
}

TEST(ExplorerTest, AReferenceToNothingHaltsInPlace)
{
    QmTest::ChildProcess bound([] {
        const int something = 0;
        haltUnlessBound(&something);
        return 0;
    });
    EXPECT_EQ(bound.exitCode(), 0);
    QmTest::ChildProcess unbound(
        [] {
            haltUnlessBound(nullptr);
            return 0;
        },
        1);
    EXPECT_EQ(unbound.exitCode(), -SIGALRM);
}

#ifndef __SANITIZE_ADDRESS__ // (its companion for undefined behaviour reports null references)
TEST(ExplorerTest, TheBaseOperationsHaltForReferencesToNothing)
{
    struct Plain : virtual Explorer
    {
        const char* getExplorerName() const override { return "plain"; }
    };
    const AutoDereference<Plain> explorer(new Plain);
    const EngineContext someContext(true);
    const Authority someAuthority("a", AT_QMKCLIENT);
    const Subject someSubject("s");
    AutoDereference<TLXRefCounted> someState;
    for (int missing = 0; missing < 7; ++missing) {
        QmTest::ChildProcess child([&] {
            ::ualarm(200000, 0);
            // Volatile, so that the compiler does not see the null references.
            const EngineContext* volatile context = missing == 0 ? nullptr : &someContext;
            const Authority* volatile authority =
                missing == 1 || missing == 4 ? nullptr : &someAuthority;
            const Subject* volatile subject = missing == 2 || missing == 5 ? nullptr : &someSubject;
            AutoDereference<TLXRefCounted>* volatile state =
                missing == 3 || missing == 6 ? nullptr : &someState;
            if (missing < 4)
                explorer->startExploration(*context, *authority, *subject, *state, nullptr);
            else
                explorer->stopExploration(*authority, *subject, *state);
            return 0;
        });
        EXPECT_EQ(child.exitCode(), -SIGALRM) << missing;
    }
}
#endif

TEST(ExplorerTest, ARemotePullKnowsWhereItsDataIs)
{
    const AutoDereference<RemoteExplorerPull> explorer(
        new RemoteExplorerPull("DiscoveryService", "client1", "s", "a", AT_QMKCLIENT));
    EXPECT_STREQ(explorer->getExplorerName(), "RemotePullExplorer");
    EXPECT_EQ(explorer->getServiceName(), TlxString("DiscoveryService"));
    EXPECT_EQ(explorer->getSourceHost().text(), TlxString("client1"));
    EXPECT_EQ(explorer->getAuthorityType(), AT_QMKCLIENT);
}

/// Hands the events of an "ExplorerData" element to the default parser.
struct Document : XmlDocumentInterface
{
    Document() : XmlDocumentInterface(nullptr, "ExplorerData") {}
    XmlObjParseContext* getObjParseContext(const XMLCh* name) override
    {
        return parser->getParseContext("Files", name, nullptr);
    }
    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override
    {
        parser->xmlCharacters(context, chars, length);
    }
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override
    {
        if (depth++ > 0) // the owner of the parser handles the element itself
            parser->xmlStartElement(context, name, attributes);
    }
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override
    {
        --depth;
        const int result = parser->xmlEndElement(context, name);
        EXPECT_EQ(result, depth == 0 ? XML_COMPLETE : XML_INSIDE);
        if (result == XML_COMPLETE)
            data.reset(parser->getExplorerData(context));
        return result;
    }
    /// The inner XML that the parser keeps of a block.
    static std::string kept(const std::string& block)
    {
        Document document;
        EXPECT_TRUE(document.parseBuffer(block));
        std::ostringstream out;
        if (document.data)
            document.data->writeXml(out, XmlStr::XE_ASCII);
        return out.str();
    }
    const AutoDereference<DefaultExplorerDataParser> parser{new DefaultExplorerDataParser};
    AutoDereference<ExplorerData> data;
    int depth = 0;
};

TEST(DefaultExplorerDataParserTest, ABlockIsKeptAsItIs)
{
    EXPECT_EQ(
        Document::kept("<ExplorerData Name=\"x\"><a>one</a><b><c>two</c>\n</b></ExplorerData>"),
        "<a>one</a><b><c>two</c>\n</b>");
}

TEST(DefaultExplorerDataParserTest, AnEmptyBlockIsAnEmptyText)
{
    EXPECT_EQ(Document::kept("<ExplorerData Name=\"x\"></ExplorerData>"), "");
    EXPECT_EQ(Document::kept("<ExplorerData/>"), "");
}

TEST(DefaultExplorerDataParserTest, TextIsKeptEscaped)
{
    EXPECT_EQ(Document::kept("<ExplorerData>a &amp; b<x>&lt;é</x></ExplorerData>"),
              "a &amp; b<x>&lt;é</x>");
}

TEST(DefaultExplorerDataParserTest, AnAttributesNameStandsInQuotationMarks)
{
    EXPECT_EQ(Document::kept("<ExplorerData><x a=\"1\" b=\"&quot;\">t</x></ExplorerData>"),
              "<x \"a\"=\"1\" \"b\"=\"&quot;\">t</x>");
}

TEST(DefaultExplorerDataParserTest, TheParserItselfIsNotWritten)
{
    const AutoDereference<DefaultExplorerDataParser> parser(new DefaultExplorerDataParser);
    EXPECT_STREQ(parser->getExplorerParserName(), "DefaultExplorerParser");
    const AssertionCapture assertions;
    std::ostringstream out;
    EXPECT_EQ(&parser->writeXml(out, XmlStr::XE_UTF8), &out);
    EXPECT_EQ(assertions.texts(), Calls{"SHOULD_NOT_GET_HERE"});
}

TEST(DefaultExplorerDataParserTest, AnothersContextIsReported)
{
    const AutoDereference<DefaultExplorerDataParser> parser(new DefaultExplorerDataParser);
    const std::basic_string<XMLCh> name = TlxString("x").toXmlCh();
    XmlObjParseContext context(name.c_str());
    const AssertionCapture assertions;
    QmTest::NameOnly attributes;
    parser->xmlStartElement(&context, name.c_str(), attributes);
    EXPECT_EQ(assertions.texts(), Calls{"ctxt"});
    EXPECT_EQ(parser->getExplorerData(&context), nullptr);
    EXPECT_EQ(parser->xmlEndElement(&context, name.c_str()), XML_NOTHING);
    EXPECT_EQ(assertions.texts(), Calls(3, "ctxt"));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
