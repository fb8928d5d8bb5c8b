// Documents that are malformed or hostile.

#include <tlx/Xml.h>

#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "XmlRefusal.h"
#include "support/Text.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::domParse;
using QmTest::LogCapture;
using QmTest::refusalOf;
using QmTest::XmlRecorder;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

namespace {

std::string nested(unsigned depth, const char* innermost = "")
{
    std::string text;
    for (unsigned i = 0; i < depth; ++i)
        text += "<a>";
    text += innermost;
    for (unsigned i = 0; i < depth; ++i)
        text += "</a>";
    return text;
}

/// Entities that each contain ten of the one before.
std::string bomb(const char* use)
{
    std::string text = "<!DOCTYPE Doc [<!ENTITY e0 \"xxxxxxxxxx\">";
    for (int i = 1; i < 10; ++i) {
        text += "<!ENTITY e" + std::to_string(i) + " \"";
        for (int k = 0; k < 10; ++k)
            text += "&e" + std::to_string(i - 1) + ";";
        text += "\">";
    }
    return text + "]>" + use;
}

TEST(XmlSafetyTest, AMalformedDocumentIsNamedWithItsPlace)
{
    EXPECT_EQ(refusalOf("<Doc>\n <a></b></Doc>"),
              "Failed to parse the document Doc: line 2, column 7: expected end of tag 'a'");
    EXPECT_EQ(refusalOf("<Doc>"),
              "Failed to parse the document Doc: line 1, column 6: input ended before all started "
              "tags were ended; last tag started is 'Doc'");
    EXPECT_THAT(refusalOf(""), StartsWith("Failed to parse the document Doc: line "));
    EXPECT_THAT(refusalOf("no document"), StartsWith("Failed to parse the document Doc: line 1,"));
    EXPECT_THAT(refusalOf("<Doc/><Doc/>"), StartsWith("Failed to parse the document Doc: line 1,"));
    EXPECT_THAT(refusalOf(std::string("<Doc>\0</Doc>", 12)),
                StartsWith("Failed to parse the document Doc: line 1,"));
    EXPECT_THAT(refusalOf("<Doc a='1' a='2'/>"),
                StartsWith("Failed to parse the document Doc: line 1,"));
}

TEST(XmlSafetyTest, EventsBeforeTheFailureStayDone)
{
    XmlRecorder document;
    refusalOf("<Doc><a>1</a><b>", document);
    EXPECT_EQ(document.m_events, "<Doc><a>1</a><b>");
}

TEST(XmlSafetyTest, BytesThatAreNotInTheEncodingFail)
{
    for (const char* text : {"<Doc>\xFF</Doc>", "<Doc>\xC3(</Doc>", "<Doc>\xC3",
                             "<?xml version='1.0' encoding='none-such'?><Doc/>"})
        EXPECT_THAT(refusalOf(text), StartsWith("Failed to parse the document Doc: line "));
    XmlRecorder unknownCodePage("none-such");
    EXPECT_THAT(refusalOf("<Doc/>", unknownCodePage),
                StartsWith("Failed to parse the document Doc: line "));
}

TEST(XmlSafetyTest, DepthIsBounded)
{
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer(nested(XML_MAX_DEPTH)));
    EXPECT_TRUE(document.parseBuffer(nested(XML_MAX_DEPTH - 1, "<b/><b/><b></b>")));
    EXPECT_EQ(domParse(nested(XML_MAX_DEPTH)), 0);
    EXPECT_EQ(refusalOf(nested(XML_MAX_DEPTH + 1)),
              "Failed to parse the document Doc: line 1, column 772: elements are nested deeper "
              "than 256");
    EXPECT_EQ(refusalOf(nested(XML_MAX_DEPTH, "<b/>")),
              "Failed to parse the document Doc: line 1, column 773: elements are nested deeper "
              "than 256");
    EXPECT_EQ(domParse(nested(XML_MAX_DEPTH, "<b/>")), 1);
    // The bound holds inside skipped elements too.
    EXPECT_NE(refusalOf("<unknown>" + nested(100000)), "");
    EXPECT_EQ(domParse(nested(100000)), 1);
}

TEST(XmlSafetyTest, FewEntitiesAreFine)
{
    const std::string text = "<!DOCTYPE Doc [<!ENTITY e \"<b>x</b>\">]><Doc a='&amp;'>&e;&e;</Doc>";
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer(text));
    EXPECT_EQ(document.m_events, "<Doc a=&><b>x</b><b>x</b></Doc>");
    EXPECT_EQ(domParse(text), 0);
}

TEST(XmlSafetyTest, TheFixedEntitiesAndCharacterReferencesAreNotCounted)
{
    std::string text = "<Doc>";
    std::string expected = "<Doc>";
    for (unsigned i = 0; i < 10 * XML_MAX_ENTITY_EXPANSIONS; ++i) {
        text += "&amp;&#65;";
        expected += "&A";
    }
    struct Collector : XmlDocumentInterface
    {
        Collector() : XmlDocumentInterface(nullptr, "Doc") {}
        void xmlStartElement(XmlObjParseContext*, const XMLCh*, AttributeList&) override {}
        int xmlEndElement(XmlObjParseContext* context, const XMLCh*) override
        {
            m_text = context->text().utf8();
            return XML_COMPLETE;
        }
        std::string m_text;
    } document;
    EXPECT_TRUE(document.parseBuffer(text + "</Doc>"));
    EXPECT_EQ("<Doc>" + document.m_text, expected);
}

TEST(XmlSafetyTest, EntityExpansionIsBounded)
{
    for (const char* use : {"<Doc>&e9;</Doc>", "<Doc a='&e9;'/>"}) {
        EXPECT_THAT(refusalOf(bomb(use)), StartsWith("Failed to parse the document Doc: line 1, "));
        EXPECT_EQ(domParse(bomb(use)), 1) << use;
    }
    // The bound is for the whole document, not for one entity.
    std::string many = "<!DOCTYPE Doc [<!ENTITY e \"x\">]><Doc>";
    for (unsigned i = 0; i < XML_MAX_ENTITY_EXPANSIONS; ++i)
        many += "&e;";
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer(many + "</Doc>"));
    EXPECT_TRUE(document.parseBuffer(many + "</Doc>")); // each document has a count of its own
    EXPECT_NE(refusalOf(many + "&e;</Doc>"), "");
    EXPECT_EQ(domParse(many + "</Doc>"), 0);
    EXPECT_EQ(domParse(many + "&e;</Doc>"), 1);
}

TEST(XmlSafetyTest, AnEntityThatHoldsItselfFails)
{
    const std::string text =
        "<!DOCTYPE Doc [<!ENTITY a \"&b;\"><!ENTITY b \"&a;\">]><Doc>&a;</Doc>";
    EXPECT_NE(refusalOf(text), "");
    EXPECT_EQ(domParse(text), 1);
}

TEST(XmlSafetyTest, ALongEntityIsRefused)
{
    const auto text = [](std::size_t length) {
        return "<!DOCTYPE Doc [<!ENTITY e \"" + std::string(length, 'x') + "\">]><Doc>&e;</Doc>";
    };
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer(text(4096)));
    EXPECT_EQ(refusalOf(text(4097)), "Failed to parse the document Doc: line 1, column 4127: the "
                                     "text of the entity e is longer than 4096");
    EXPECT_EQ(domParse(text(4097)), 1);
}

TEST(XmlSafetyTest, OtherDeclarationsThanEntitiesAndElementsAreRefused)
{
    const std::string parameter = "<!DOCTYPE Doc [<!ENTITY % p \"\"> %p;]><Doc/>";
    EXPECT_EQ(refusalOf(parameter), "Failed to parse the document Doc: line 1, column 32: the "
                                    "parameter entity p is not allowed");
    EXPECT_EQ(domParse(parameter), 1);
    for (const char* kind : {"CDATA 'x'", "CDATA #IMPLIED"}) {
        const std::string attribute =
            "<!DOCTYPE Doc [<!ATTLIST Doc a " + std::string(kind) + ">]><Doc/>";
        EXPECT_THAT(refusalOf(attribute),
                    AllOf(StartsWith("Failed to parse the document Doc: line 1, column "),
                          EndsWith(": the declaration of the attribute a is not allowed")));
        EXPECT_EQ(domParse(attribute), 1);
    }
    EXPECT_THAT(
        refusalOf("<!DOCTYPE Doc [<!NOTATION " + std::string(1000, 'n') + " SYSTEM 'x'>]><Doc/>"),
        EndsWith(": the notation " + std::string(64, 'n') + " is not allowed"));
    const std::string notation = "<!DOCTYPE Doc [<!NOTATION n SYSTEM 'x'>]><Doc/>";
    EXPECT_THAT(refusalOf(notation),
                AllOf(StartsWith("Failed to parse the document Doc: line 1, column "),
                      EndsWith(": the notation n is not allowed")));
    EXPECT_EQ(domParse(notation), 1);
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer("<!DOCTYPE Doc [<!ELEMENT Doc ANY>]><Doc a='1'>t</Doc>"));
    EXPECT_EQ(document.m_events, "<Doc a=1>t</Doc>");
}

TEST(XmlSafetyTest, ATreeHasABoundedNumberOfNodes)
{
    const auto elements = [](unsigned count) {
        std::string text = "<Doc>";
        for (unsigned i = 1; i < count; ++i)
            text += "<e/>";
        return text + "</Doc>";
    };
    EXPECT_EQ(domParse(elements(10000)), 0);
    EXPECT_EQ(domParse(elements(10000)), 0); // each document has a count of its own
    EXPECT_EQ(domParse(elements(10001)), 1);
    std::string attributes = "<Doc";
    std::string entities = "<!DOCTYPE Doc [";
    for (unsigned i = 0; i < 10000; ++i) {
        attributes += " a" + std::to_string(i) + "=''";
        entities += "<!ENTITY e" + std::to_string(i) + " ''>";
    }
    EXPECT_EQ(domParse(attributes + "/>"), 1);
    EXPECT_EQ(domParse(entities + "]><Doc/>"), 1);
}

TEST(XmlSafetyTest, WhatAnObjectRefusesFailsTheParseAtItsPlace)
{
    struct Document : XmlRecorder
    {
        void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                             AttributeList& attributes) override
        {
            XmlRecorder::xmlStartElement(context, name, attributes);
            const XmlObjParseContext inner(name, context);
            inner.refuse("no room");
        }
    } document;
    EXPECT_EQ(refusalOf("<Doc><a/></Doc>", document),
              "Failed to parse the document Doc: line 1, column 6: no room");
    EXPECT_EQ(document.m_events, "<Doc>");
}

TEST(XmlSafetyTest, WhatAnObjectThrowsFailsTheParseAtItsPlace)
{
    XmlRecorder document;
    document.m_atStart = [] { throw std::runtime_error("no room"); };
    EXPECT_EQ(refusalOf("<Doc/>", document),
              "Failed to parse the document Doc: line 1, column 7: no room");
    document.m_atStart = [] { throw 5; };
    EXPECT_EQ(refusalOf("<Doc/>", document),
              "Failed to parse the document Doc: line 1, column 7: an unknown exception");
    document.m_atStart = [] { throw std::bad_alloc(); };
    EXPECT_EQ(refusalOf("<Doc/>", document),
              "Failed to parse the document Doc: line 1, column 7: std::bad_alloc");
}

TEST(XmlSafetyTest, AnObjectWithoutAContextFails)
{
    struct Document : XmlRecorder
    {
        XmlObjParseContext* getObjParseContext(const XMLCh*) override { return nullptr; }
    } document;
    EXPECT_EQ(refusalOf("<Doc/>", document), "Failed to parse the document Doc: line 0, column 0: "
                                             "the document's object gave no context");
}

TEST(XmlSafetyTest, ASourceWithoutAStreamFails)
{
    struct Source : xercesc::InputSource
    {
        xercesc::BinInputStream* makeStream() const override { return nullptr; }
    };
    LogCapture log;
    XmlRecorder document;
    Source source;
    EXPECT_FALSE(document.parse(source));
    EXPECT_THAT(log.texts(LOG_LEVEL_FAILURE),
                ElementsAre("Failed to parse the document Doc: line 0, column 0: the document "
                            "cannot be opened"));
}

TEST(XmlSafetyTest, ManyAttributesAndManyElementsAreFine)
{
    std::string attributes = "<Doc";
    std::string elements = "<Doc>";
    for (int i = 0; i < 50000; ++i) {
        attributes += " a" + std::to_string(i) + "='1'";
        elements += "<e" + std::to_string(i) + "/>";
    }
    XmlDocumentInterface document(nullptr, "Doc");
    EXPECT_TRUE(document.parseBuffer(attributes + "/>"));
    EXPECT_TRUE(document.parseBuffer(elements + "</Doc>"));
}

} // namespace
