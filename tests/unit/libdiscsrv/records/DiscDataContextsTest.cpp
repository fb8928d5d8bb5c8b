// Calls in a wrong order during a parse. Each is reported and does no harm.

#include "DiscDataContexts.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Capture.h"
#include "support/ParseCalls.h"
#include "support/PlainDiscovery.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::PlainDiscovery;
using QmTest::utf16;

using Texts = std::vector<std::string>;

struct DiscDataContextsTest : QmTest::ParseCalls
{
    AutoDereference<PlainDiscovery> record{new PlainDiscovery};
    DiscoveryDocContext document{utf16("DiscoveryData").c_str()};
    DescriptionContext description{utf16("DiscoverySubject").c_str()};
    Subject subject{"s"};
};

TEST_F(DiscDataContextsTest, AContextOfAnotherKind)
{
    XmlObjParseContext plain(utf16("DiscoveryData").c_str());
    for (XmlObjParseContext* context :
         std::vector<XmlObjParseContext*>{&plain, &description, nullptr}) {
        start(*record, context, "DiscoveryData");
        characters(*record, context);
        EXPECT_EQ(end(*record, context, "DiscoveryData"), XML_COMPLETE);
    }
    for (XmlObjParseContext* context :
         std::vector<XmlObjParseContext*>{&plain, &document, nullptr}) {
        start(subject, context, "STATUSMSG");
        characters(subject, context);
        EXPECT_EQ(end(subject, context, "DiscoverySubject"), XML_COMPLETE);
    }
    EXPECT_EQ(assertions.texts(), Texts(18, "ctxt"));
    EXPECT_TRUE(plain.text().empty());
    EXPECT_EQ(subject.getStatusMsg(), nullptr);
}

TEST_F(DiscDataContextsTest, ADescriptionThatIsNotThere)
{
    document.m_nodes = {DiscoveryDocContext::Document, DiscoveryDocContext::SubjectNode};
    start(*record, &document, "STATUSMSG");
    characters(*record, &document);
    EXPECT_EQ(assertions.texts(), Texts(2, "ctxt->m_subInterface"));
    // The document stays readable after the end of the element.
    EXPECT_EQ(end(*record, &document, "DiscoverySubject"), XML_INSIDE);
    EXPECT_EQ(assertions.texts(), (Texts{"ctxt->m_subInterface", "ctxt->m_subInterface",
                                         "ctxt->m_subInterface", "ctxt->m_subContext"}));
    EXPECT_EQ(document.m_nodes.size(), 1u);
}

TEST_F(DiscDataContextsTest, ADescriptionWithoutItsContext)
{
    document.m_nodes = {DiscoveryDocContext::Document, DiscoveryDocContext::SubjectNode};
    document.m_subInterface = &subject;
    start(*record, &document, "STATUSMSG");
    EXPECT_EQ(assertions.texts(), Texts{"ctxt->m_subContext"});
    characters(*record, &document); // the description reports the missing context
    EXPECT_EQ(assertions.texts(), (Texts{"ctxt->m_subContext", "ctxt"}));
    EXPECT_EQ(end(*record, &document, "DiscoverySubject"), XML_INSIDE);
    EXPECT_EQ(assertions.texts(), (Texts{"ctxt->m_subContext", "ctxt", "ctxt->m_subContext"}));
    EXPECT_EQ(document.m_nodes.size(), 1u);
    EXPECT_EQ(document.m_subInterface, nullptr);
}

TEST_F(DiscDataContextsTest, ADescriptionInsideAnother)
{
    for (const char* name : {"DiscoverySubject", "DiscoveryAuthority"}) {
        document.m_nodes = {DiscoveryDocContext::Document};
        document.m_subContext = std::make_unique<DescriptionContext>(utf16(name).c_str());
        start(*record, &document, name);
        EXPECT_EQ(document.m_nodes.size(), 2u);
    }
    EXPECT_EQ(assertions.texts(), Texts(2, "!ctxt->m_subContext"));
    EXPECT_TRUE(record->getSubject());
}

/// A description whose end returns a wrong result.
struct Endless : Subject
{
    using Subject::Subject;
    int xmlEndElement(XmlObjParseContext*, const XMLCh*) override { return 7; }
};

TEST_F(DiscDataContextsTest, ADescriptionWithAnUnknownAnswer)
{
    Endless endless("s");
    document.m_nodes = {DiscoveryDocContext::Document, DiscoveryDocContext::SubjectNode};
    document.m_subInterface = &endless;
    document.m_subContext =
        std::make_unique<DescriptionContext>(utf16("DiscoverySubject").c_str(), &document);
    EXPECT_EQ(end(*record, &document, "DiscoverySubject"), XML_INSIDE);
    EXPECT_EQ(assertions.texts(), Texts{"SHOULD_NOT_GET_HERE"});
    EXPECT_EQ(document.m_subInterface, nullptr);
    EXPECT_EQ(document.m_nodes.size(), 1u);
}

TEST_F(DiscDataContextsTest, AnUnknownNode)
{
    record->setAttributes(
        new CollectionAttributes(CT_REAL_TIME, CS_LOCALONLY, TlxObjTime(), TlxObjTime(), 5));
    document.m_nodes = {DiscoveryDocContext::Document, 8};
    EXPECT_EQ(end(*record, &document, "Other"), XML_INSIDE);
    EXPECT_EQ(assertions.texts(), Texts{"SHOULD_NOT_GET_HERE"});
    EXPECT_EQ(document.m_nodes.size(), 1u);
    EXPECT_EQ(record->getAttributes()->getPriority(), 5u);
}

TEST_F(DiscDataContextsTest, AnEndWithoutAStart)
{
    EXPECT_EQ(end(*record, &document, "DiscoveryData"), XML_COMPLETE);
    EXPECT_EQ(assertions.texts(), Texts{"SHOULD_NOT_GET_HERE"});
}

TEST_F(DiscDataContextsTest, AValueWithoutAttributes)
{
    document.m_nodes = {DiscoveryDocContext::Document, DiscoveryDocContext::Priority};
    EXPECT_EQ(end(*record, &document, "Priority"), XML_INSIDE);
    EXPECT_EQ(assertions.texts(), Texts{"getAttributes()"});
}

TEST_F(DiscDataContextsTest, ADescriptionThatEndsUnderAnotherName)
{
    EXPECT_EQ(end(subject, &description, "DiscoverySubject"), XML_COMPLETE);
    EXPECT_EQ(assertions.texts(), Texts{});
    EXPECT_EQ(end(subject, &description, "Other"), XML_COMPLETE);
    EXPECT_EQ(assertions.texts(), Texts{"ctxt->isEndTag(name)"});
}

TEST_F(DiscDataContextsTest, AStatusMessageInsideAnother)
{
    description.m_subContext = std::make_unique<XmlObjParseContext>(utf16("STATUSMSG").c_str());
    start(subject, &description, "STATUSMSG");
    EXPECT_EQ(assertions.texts(), Texts{"!ctxt->m_subContext"});
    characters(subject, &description);
    EXPECT_EQ(end(subject, &description, "STATUSMSG"), XML_INSIDE);
    ASSERT_TRUE(subject.getStatusMsg());
    EXPECT_EQ(subject.getStatusMsg()->text(), TlxString("ab"));
}

TEST_F(DiscDataContextsTest, AStatusMessageThatIsNotThere)
{
    description.m_nodes = {DescriptionContext::StatusMessage};
    start(subject, &description, "Other");
    EXPECT_EQ(end(subject, &description, "STATUSMSG"), XML_INSIDE);
    EXPECT_EQ(assertions.texts(), Texts(2, "ctxt->m_subInterface"));
    EXPECT_TRUE(description.m_nodes.empty());
    EXPECT_EQ(subject.getStatusMsg(), nullptr);
}

/// A status message whose end returns the result that the test sets.
struct Answering : StatusMsg
{
    explicit Answering(int answer) : m_answer(answer) {}
    int xmlEndElement(XmlObjParseContext*, const XMLCh*) override { return m_answer; }
    int m_answer;
};

TEST_F(DiscDataContextsTest, AStatusMessageWithAnUnknownAnswer)
{
    description.m_nodes = {DescriptionContext::StatusMessage};
    description.m_subInterface.reset(new Answering(7));
    description.m_subContext = std::make_unique<XmlObjParseContext>(utf16("STATUSMSG").c_str());
    EXPECT_EQ(end(subject, &description, "STATUSMSG"), XML_INSIDE);
    EXPECT_EQ(assertions.texts(), Texts{"SHOULD_NOT_GET_HERE"});
    EXPECT_EQ(subject.getStatusMsg(), nullptr);
}

TEST_F(DiscDataContextsTest, AStatusMessageThatYieldsNothing)
{
    description.m_nodes = {DescriptionContext::StatusMessage};
    description.m_subInterface.reset(new Answering(XML_NOTHING));
    description.m_subContext = std::make_unique<XmlObjParseContext>(utf16("STATUSMSG").c_str());
    EXPECT_EQ(end(subject, &description, "STATUSMSG"), XML_INSIDE);
    EXPECT_EQ(assertions.texts(), Texts{});
    EXPECT_EQ(subject.getStatusMsg(), nullptr);
    EXPECT_TRUE(description.m_nodes.empty());
    EXPECT_FALSE(description.m_subContext);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
