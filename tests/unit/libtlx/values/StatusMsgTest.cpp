#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include <tlx/StatusMsg.h>

#include "support/Capture.h"

using namespace Veltrane::Quillmark::Tlx;

namespace {

/// A document that contains "STATUSMSG" elements.
class Holder : public XmlDocumentInterface
{
  public:
    Holder() : XmlDocumentInterface(nullptr, "Holder") {}

    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override
    {
        if (m_context) {
            m_current->xmlStartElement(m_context.get(), name, attributes);
        } else if (XmlObjParseContext::isTag(name, StatusMsg::TAG)) {
            StatusMsg* message = nullptr;
            m_context.reset(xmlCreateObject(name, attributes, context, message));
            m_current.reset(message);
        } else if (!context->isEndTag(name)) {
            XmlDocumentInterface::xmlStartElement(context, name, attributes);
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
        EXPECT_EQ(m_current->xmlEndElement(m_context.get(), name), XML_COMPLETE);
        m_context.reset();
        m_message = m_current;
        return XML_INSIDE;
    }

    std::unique_ptr<XmlObjParseContext> m_context;
    AutoDereference<StatusMsg> m_current;
    AutoDereference<StatusMsg> m_message;
};

std::string written(const StatusMsg& message, XmlStr::Encoding encoding = XmlStr::XE_UTF8)
{
    std::ostringstream out;
    EXPECT_EQ(&message.writeXml(out, encoding), &out);
    return out.str();
}

AutoDereference<StatusMsg> readMessage(const std::string& text)
{
    Holder holder;
    EXPECT_TRUE(holder.parseBuffer("<Holder>" + text + "</Holder>"));
    EXPECT_TRUE(holder.m_message) << text;
    return holder.m_message;
}

TEST(StatusMsgTest, AsXml)
{
    const AutoDereference<StatusMsg> message(new StatusMsg(17, "text"));
    EXPECT_EQ(written(*message), "<STATUSMSG Code=\"17\">text</STATUSMSG>");
    const AutoDereference<StatusMsg> empty(new StatusMsg);
    EXPECT_EQ(written(*empty), "<STATUSMSG Code=\"0\"></STATUSMSG>");
    const AutoDereference<StatusMsg> odd(new StatusMsg(-3, "a<b> \xC3\xA9"));
    EXPECT_EQ(written(*odd), "<STATUSMSG Code=\"-3\">a&lt;b&gt; \xC3\xA9</STATUSMSG>");
    EXPECT_EQ(written(*odd, XmlStr::XE_ASCII),
              "<STATUSMSG Code=\"-3\">a&lt;b&gt; &#233;</STATUSMSG>");
}

TEST(StatusMsgTest, WhatIsWrittenReadsBack)
{
    for (const std::int32_t code : {0, 17, -3, INT32_MAX, INT32_MIN}) {
        const AutoDereference<StatusMsg> message(new StatusMsg(code, " a<&>\r\n\xC3\xA9 "));
        const AutoDereference<StatusMsg> back = readMessage(written(*message));
        ASSERT_TRUE(back);
        EXPECT_EQ(back->code(), code);
        EXPECT_EQ(back->text(), message->text());
    }
}

TEST(StatusMsgTest, ACodeThatIsNoNumberIsZero)
{
    for (const char* start : {"<STATUSMSG>", "<STATUSMSG Code=''>", "<STATUSMSG Code='x'>",
                              "<STATUSMSG Code='99999999999'>", "<STATUSMSG code='5'>"}) {
        const auto message = readMessage(std::string(start) + "t</STATUSMSG>");
        ASSERT_TRUE(message);
        EXPECT_EQ(message->code(), 0) << start;
        EXPECT_EQ(message->text(), TlxString("t"));
    }
}

TEST(StatusMsgTest, ElementsInsideAreSkipped)
{
    const auto message =
        readMessage("<STATUSMSG Code='5'>a<STATUSMSG Code='6'>b</STATUSMSG>c<x/>d</STATUSMSG>");
    ASSERT_TRUE(message);
    EXPECT_EQ(message->code(), 5);
    EXPECT_EQ(message->text(), TlxString("acd"));
}

TEST(StatusMsgTest, TheCallerGetsTheCreatorsReference)
{
    const auto message = readMessage("<STATUSMSG Code='5'>a</STATUSMSG>");
    ASSERT_TRUE(message);
    EXPECT_EQ(message->referenceCount(), 1u);
}

TEST(StatusMsgTest, AnEndOfAnotherElementIsInside)
{
    const AutoDereference<StatusMsg> message(new StatusMsg(1, "kept"));
    XmlObjParseContext context(TlxString("STATUSMSG").toXmlCh().c_str());
    EXPECT_EQ(message->xmlEndElement(&context, TlxString("x").toXmlCh().c_str()), XML_INSIDE);
    EXPECT_EQ(message->text(), TlxString("kept"));
}

TEST(StatusMsgTest, WithoutAContextNothingHappens)
{
    QmTest::AssertionCapture assertions;
    const AutoDereference<StatusMsg> message(new StatusMsg(1, "kept"));
    EXPECT_EQ(message->xmlEndElement(nullptr, TlxString("STATUSMSG").toXmlCh().c_str()),
              XML_NOTHING);
    EXPECT_EQ(assertions.texts(), std::vector<std::string>{"context"});
    EXPECT_EQ(message->text(), TlxString("kept"));
}

} // namespace
