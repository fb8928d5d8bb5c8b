#pragma once
// Documents that the parser refuses.

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tlx/DomHandler.h>
#include <tlx/Xml.h>

#include "support/Capture.h"
#include "support/XmlRecorder.h"

namespace QmTest {

/// Expects that the text is refused with one log line. Returns the text of the line.
inline std::string refusalOf(const std::string& text, Tlx::XmlDocumentInterface& document)
{
    LogCapture log;
    EXPECT_FALSE(document.parseBuffer(text)) << text.substr(0, 200);
    const auto lines = log.lines();
    EXPECT_EQ(lines.size(), 1u);
    if (lines.size() != 1)
        return {};
    EXPECT_EQ(lines[0].level, Tlx::LOG_LEVEL_FAILURE);
    EXPECT_EQ(lines[0].originator, Tlx::LOG_ORIGINATOR_PLATFORM);
    EXPECT_EQ(lines[0].operation, "XmlDocumentInterface::parse");
    EXPECT_EQ(lines[0].source, "../Xml");
    return lines[0].text;
}

inline std::string refusalOf(const std::string& text)
{
    XmlRecorder document;
    return refusalOf(text, document);
}

/// Parses into a tree, without a log line. The result of TlxDOMHandler::parse().
inline int domParse(const std::string& text)
{
    LogCapture log;
    Tlx::TlxDOMHandler handler(text.c_str());
    const int result = handler.parse();
    EXPECT_THAT(log.lines(), testing::IsEmpty());
    return result;
}

/// Accepts every element and keeps the text of the last one.
struct TextReader : Tlx::XmlDocumentInterface
{
    TextReader() : Tlx::XmlDocumentInterface(nullptr, "Doc") {}
    void xmlStartElement(Tlx::XmlObjParseContext* context, const XMLCh*,
                         Tlx::AttributeList&) override
    {
        context->clearText();
    }
    int xmlEndElement(Tlx::XmlObjParseContext* context, const XMLCh*) override
    {
        m_text = context->text().utf8();
        return Tlx::XML_INSIDE;
    }
    std::string m_text;
};

/// Expects that the text is refused in its first line, for that reason.
inline void expectRefused(const std::string& text, const std::string& reason)
{
    TextReader document;
    EXPECT_THAT(
        refusalOf(text, document),
        testing::AllOf(testing::StartsWith("Failed to parse the document Doc: line 1, column "),
                       testing::EndsWith(": " + reason)));
}

} // namespace QmTest
