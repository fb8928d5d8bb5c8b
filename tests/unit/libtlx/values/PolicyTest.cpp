#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include <tlx/Policy.h>

#include "support/Capture.h"

using namespace Veltrane::Quillmark::Tlx;

namespace {

/// A document that is a policy.
class PolicyDocument : public XmlDocumentInterface
{
  public:
    PolicyDocument() : XmlDocumentInterface(nullptr, QmkPolicy::TAG) {}

    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override
    {
        if (m_context)
            return m_policy->xmlStartElement(m_context.get(), name, attributes);
        ASSERT_TRUE(XmlObjParseContext::cmptag(name, QmkPolicy::TAG));
        QmkPolicy* policy = nullptr;
        m_context.reset(xmlCreateObject(name, attributes, context, policy));
        m_policy.reset(policy);
    }
    void xmlCharacters(XmlObjParseContext*, const XMLCh* chars, unsigned long length) override
    {
        m_policy->xmlCharacters(m_context.get(), chars, length);
    }
    int xmlEndElement(XmlObjParseContext*, const XMLCh* name) override
    {
        m_end = m_policy->xmlEndElement(m_context.get(), name);
        return m_end;
    }

    int m_end = -1;
    AutoDereference<QmkPolicy> m_policy;
    std::unique_ptr<XmlObjParseContext> m_context;
};

AutoDereference<QmkPolicy> read(const std::string& text)
{
    PolicyDocument document;
    EXPECT_TRUE(document.parseBuffer(text)) << text;
    EXPECT_EQ(document.m_end, XML_COMPLETE) << text;
    return document.m_policy ? document.m_policy : AutoDereference<QmkPolicy>(new QmkPolicy);
}

std::string written(const QmkPolicy& policy, XmlStr::Encoding encoding = XmlStr::XE_UTF8)
{
    std::ostringstream out;
    EXPECT_EQ(&policy.writeXml(out, encoding), &out);
    return out.str();
}

AutoDereference<QmkPolicy> make(QmkPolicy::Values values)
{
    return AutoDereference<QmkPolicy>(new QmkPolicy(std::move(values)));
}

TEST(PolicyTest, AsXml)
{
    EXPECT_EQ(written(*make({"nightly", "filesystem", true, 30, "text"})),
              "<QMKPolicy Name=\"nightly\" Type=\"filesystem\" Active=\"1\" Retention=\"30\">"
              "text</QMKPolicy>");
    EXPECT_EQ(written(*make({})),
              "<QMKPolicy Name=\"\" Type=\"\" Active=\"0\" Retention=\"0\"></QMKPolicy>");
    EXPECT_EQ(written(*make({"a\"b", "\xC3\xA9", false, 1, "<&>"}), XmlStr::XE_ASCII),
              "<QMKPolicy Name=\"a&quot;b\" Type=\"&#233;\" Active=\"0\" Retention=\"1\">"
              "&lt;&amp;&gt;</QMKPolicy>");
}

TEST(PolicyTest, WhatIsWrittenReadsBackEqual)
{
    for (const QmkPolicy::Values& values :
         {QmkPolicy::Values{}, QmkPolicy::Values{"nightly", "filesystem", true, 30, "text"},
          QmkPolicy::Values{" a\t\n\"'<&> ", "\xE6\x97\xA5", true, UINT32_MAX, "\r\n a "}})
        EXPECT_EQ(read(written(*make(values)))->values(), values) << values.name;
}

TEST(PolicyTest, TheCaseOfTheElementsNameDoesNotMatter)
{
    for (const char* tag : {"QMKPolicy", "QMKPOLICY", "qmkpolicy"})
        EXPECT_EQ(read("<" + std::string(tag) + " Name='n'/>")->name(), TlxString("n")) << tag;
}

TEST(PolicyTest, WhatIsAbsentIsEmptyInactiveAndZero)
{
    EXPECT_EQ(read("<QMKPolicy/>")->values(), QmkPolicy::Values());
}

TEST(PolicyTest, ValuesThatCannotBeReadAreInactiveAndZero)
{
    for (const char* attributes : {"Active='yes' Retention='x'", "Active='' Retention=''",
                                   "Active='2' Retention='-1'", "Retention='99999999999'"})
        EXPECT_EQ(read("<QMKPolicy " + std::string(attributes) + "/>")->values(),
                  QmkPolicy::Values())
            << attributes;
}

TEST(PolicyTest, ElementsInsideAreSkipped)
{
    EXPECT_EQ(read("<QMKPolicy>a<QMKPolicy Name='b'>b</QMKPolicy>c<x/>d</QMKPolicy>")->values(),
              (QmkPolicy::Values{"", "", false, 0, "acd"}));
}

TEST(PolicyTest, TheCallerGetsTheCreatorsReference)
{
    EXPECT_EQ(read("<QMKPolicy/>")->referenceCount(), 1u);
}

TEST(PolicyTest, AnEndOfAnotherElementIsInside)
{
    const auto policy = make({"", "", false, 0, "kept"});
    XmlObjParseContext context(TlxString("QMKPolicy").toXmlCh().c_str());
    EXPECT_EQ(policy->xmlEndElement(&context, TlxString("x").toXmlCh().c_str()), XML_INSIDE);
    EXPECT_EQ(policy->values().comment, TlxString("kept"));
}

TEST(PolicyTest, WithoutAContextNothingHappens)
{
    QmTest::AssertionCapture assertions;
    const auto policy = make({"", "", false, 0, "kept"});
    EXPECT_EQ(policy->xmlEndElement(nullptr, TlxString("QMKPolicy").toXmlCh().c_str()),
              XML_NOTHING);
    EXPECT_EQ(assertions.texts(), std::vector<std::string>{"context"});
    EXPECT_EQ(policy->values().comment, TlxString("kept"));
}

} // namespace
