// The parser reads no other file and no other host.

#include <tlx/Xml.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "XmlRefusal.h"
#include "support/TemporaryDirectory.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::domParse;
using QmTest::LogCapture;
using QmTest::refusalOf;
using QmTest::XmlRecorder;
using testing::StartsWith;

namespace {

class XmlExternalEntityTest : public testing::Test
{
  protected:
    XmlExternalEntityTest()
    {
        QmTest::writeFile(m_directory.path("secret"), "secret");
        QmTest::writeFile(m_directory.path("doc.dtd"), "<!ENTITY e \"secret\">");
    }
    const QmTest::TemporaryDirectory m_directory;
    const std::string m_root = m_directory.path().string();
};

TEST_F(XmlExternalEntityTest, AReferenceToOneFailsTheParse)
{
    for (const std::string& where : {m_root + "/secret", "file://" + m_root + "/secret",
                                     std::string("http://127.0.0.1:9/secret")}) {
        const std::string text =
            "<!DOCTYPE Doc [<!ENTITY e SYSTEM \"" + where + "\">]><Doc>&e;</Doc>";
        XmlRecorder document;
        EXPECT_THAT(refusalOf(text, document),
                    StartsWith("Failed to parse the document Doc: line 1, "));
        EXPECT_EQ(document.m_events, "<Doc>");
        EXPECT_EQ(domParse(text), 1);
    }
}

TEST_F(XmlExternalEntityTest, OneThatIsOnlyDeclaredIsNotRead)
{
    const std::string text =
        "<!DOCTYPE Doc [<!ENTITY e SYSTEM \"" + m_root + "/none\">]><Doc>t</Doc>";
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer(text));
    EXPECT_EQ(document.m_events, "<Doc>t</Doc>");
}

TEST_F(XmlExternalEntityTest, ADocumentTypeFromOutsideIsNotRead)
{
    const std::string type = "<!DOCTYPE Doc SYSTEM \"" + m_root + "/doc.dtd\">";
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer(type + "<Doc>t</Doc>"));
    EXPECT_EQ(document.m_events, "<Doc>t</Doc>");
    // The entities that it declares stay unknown. That is not an error, and adds no text.
    XmlRecorder other;
    LogCapture log;
    other.parseBuffer(type + "<Doc>&e;</Doc>");
    EXPECT_EQ(other.m_events.find("secret"), std::string::npos);
}

TEST_F(XmlExternalEntityTest, SchemaLocationsAreNotFollowed)
{
    XmlRecorder document;
    EXPECT_TRUE(document.parseBuffer("<Doc xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' "
                                     "xsi:noNamespaceSchemaLocation='" +
                                     m_root + "/none.xsd'>t</Doc>"));
}

} // namespace
