// The metadata document: the text that a record writes, and the documents that it can read.

#include "DiscData.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/Capture.h"
#include "support/PlainDiscovery.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::LogCapture;
using QmTest::PlainDiscovery;
using QmTest::written;

using Record = AutoDereference<PlainDiscovery>;
using Texts = std::vector<std::string>;

Record empty()
{
    return Record(new PlainDiscovery);
}

/// Reads a record from a document with this content.
Record read(const std::string& content)
{
    Record record = empty();
    EXPECT_TRUE(record->parseBuffer("<DiscoveryData>" + content + "</DiscoveryData>"));
    return record;
}

/// Reads a record from a document whose attributes have this content.
Record readAttributes(const std::string& content)
{
    Record record =
        read("<DiscoveryAttributes Type=\"0\" Storage=\"0\">" + content + "</DiscoveryAttributes>");
    EXPECT_TRUE(record->getAttributes());
    return record;
}

struct DiscDataXmlTest : testing::Test
{
    DiscDataXmlTest()
    {
        TlxObjTime::setClock([] { return TlxObjTime(1700000000); });
    }
    ~DiscDataXmlTest() override { TlxObjTime::setClock({}); }

    /// A record with all its parts.
    static Record whole()
    {
        const AutoDereference<StatusMsg> late(new StatusMsg(17, "half <done>"));
        const AutoDereference<StatusMsg> odd(new StatusMsg(-1, "\xc3\xa9\r\n"));
        Record record = empty();
        record->setAuthority(new Authority("s\xc3\xa9rv \"1\"", AT_REMOTEPULL, odd.get()));
        record->setSubject(new Subject("cl&5", late.get()));
        record->setAttributes(new CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                       TlxObjTime(1600000000, 25), TlxObjTime(100),
                                                       0xFFFFFFFF));
        record->getAttributes()->setSignature("a<b \xe6\x97\xa5");
        return record;
    }
};

TEST_F(DiscDataXmlTest, AnEmptyRecordIsAnEmptyDocument)
{
    EXPECT_EQ(written(*empty()), "<?xml version=\"1.0\" encoding=\"UTF-8\"?><DiscoveryData>"
                                 "</DiscoveryData>");
}

TEST_F(DiscDataXmlTest, BareAttributesWriteOnlyTheirPriority)
{
    const CollectionAttributes attributes(CT_CONFIGURATION, CS_LOCALONLY, TlxObjTime(),
                                          TlxObjTime(), 0);
    EXPECT_EQ(written(attributes), "<DiscoveryAttributes Type=\"0\" Storage=\"0\">"
                                   "<Priority>0</Priority></DiscoveryAttributes>");
}

TEST_F(DiscDataXmlTest, EveryPartIsWrittenInItsOrder)
{
    EXPECT_EQ(written(*whole()),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?><DiscoveryData>"
              "<DiscoveryAuthority Name=\"s\xc3\xa9rv%20%221%22\" Type=\"4\">"
              "<STATUSMSG Code=\"-1\">\xc3\xa9&#13;\n</STATUSMSG></DiscoveryAuthority>"
              "<DiscoverySubject Name=\"cl&amp;5\">"
              "<STATUSMSG Code=\"17\">half &lt;done&gt;</STATUSMSG></DiscoverySubject>"
              "<DiscoveryAttributes Type=\"2\" Storage=\"1\"><Priority>4294967295</Priority>"
              "<DiscoveryTime>1600000000.000025</DiscoveryTime>"
              "<ExpiresTime>1700000125.000000</ExpiresTime>"
              "<Signature>a&lt;b \xe6\x97\xa5</Signature></DiscoveryAttributes></DiscoveryData>");
}

TEST_F(DiscDataXmlTest, WhatIsWrittenReadsBackEqualInEveryEncoding)
{
    const Record record = whole();
    for (const XmlStr::Encoding encoding : {XmlStr::XE_UTF8, XmlStr::XE_ASCII}) {
        const Record copy = empty();
        ASSERT_TRUE(copy->parseBuffer(written(*record, encoding))) << encoding;
        EXPECT_FALSE(copy->isDocumentRefused());
        ASSERT_TRUE(copy->getAuthority() && copy->getSubject() && copy->getAttributes());
        EXPECT_TRUE(*copy->getAuthority() == *record->getAuthority());
        EXPECT_TRUE(*copy->getSubject() == *record->getSubject());
        const StatusMsg* message = copy->getSubject()->getStatusMsg();
        ASSERT_TRUE(message);
        EXPECT_EQ(message->code(), 17);
        EXPECT_EQ(message->text(), TlxString("half <done>"));
        EXPECT_EQ(message->referenceCount(), 1);
        message = copy->getAuthority()->getStatusMsg();
        ASSERT_TRUE(message);
        EXPECT_EQ(message->code(), -1);
        EXPECT_EQ(message->text(), TlxString("\xc3\xa9\r\n"));
        const CollectionAttributes& attributes = *copy->getAttributes();
        EXPECT_EQ(attributes.getType(), CT_POINT_IN_TIME);
        EXPECT_EQ(attributes.getStorage(), CS_CENTRALREPOSITORY);
        EXPECT_EQ(attributes.getPriority(), 0xFFFFFFFF);
        EXPECT_EQ(attributes.getDiscoveryTime(), TlxObjTime(1600000000, 25));
        EXPECT_EQ(attributes.getExpiresTime(), TlxObjTime(1700000125));
        EXPECT_EQ(attributes.getSignature(), TlxString("a<b \xe6\x97\xa5"));
        EXPECT_TRUE(attributes.getTimeToLive().isZero());
        EXPECT_EQ(written(*copy), written(*record));
    }
}

TEST_F(DiscDataXmlTest, AbsentPartsStayAbsent)
{
    const Record record = readAttributes("");
    EXPECT_EQ(record->getAuthority(), nullptr);
    EXPECT_EQ(record->getSubject(), nullptr);
    const CollectionAttributes& attributes = *record->getAttributes();
    EXPECT_EQ(attributes.getPriority(), 0u);
    EXPECT_TRUE(attributes.getDiscoveryTime().isZero());
    EXPECT_TRUE(attributes.getTimeToLive().isZero());
    EXPECT_TRUE(attributes.getExpiresTime().isZero());
    EXPECT_TRUE(attributes.getSignature().empty());
}

TEST_F(DiscDataXmlTest, ALaterElementReplacesAnEarlierOne)
{
    const Record record =
        read("<DiscoverySubject Name=\"a\"><STATUSMSG Code=\"1\">x</STATUSMSG></DiscoverySubject>"
             "<DiscoveryAttributes Type=\"1\" Storage=\"1\"><Priority>5</Priority>"
             "</DiscoveryAttributes>"
             "<DiscoverySubject Name=\"b\"><STATUSMSG Code=\"1\">x</STATUSMSG>"
             "<STATUSMSG Code=\"2\">y</STATUSMSG></DiscoverySubject>"
             "<DiscoveryAttributes Type=\"2\" Storage=\"0\"/>");
    EXPECT_TRUE(*record->getSubject() == Subject("b"));
    ASSERT_TRUE(record->getSubject()->getStatusMsg());
    EXPECT_EQ(record->getSubject()->getStatusMsg()->code(), 2);
    EXPECT_EQ(record->getSubject()->getStatusMsg()->text(), TlxString("y"));
    EXPECT_EQ(record->getAttributes()->getType(), CT_POINT_IN_TIME);
    EXPECT_EQ(record->getAttributes()->getPriority(), 0u);
}

TEST_F(DiscDataXmlTest, TextMayComeInPieces)
{
    const Record record = readAttributes("stray<Priority>\n 1<!-- -->2 </Priority>stray"
                                         "<Signature>a&lt;<![CDATA[&b]]>\nc</Signature>");
    EXPECT_EQ(record->getAttributes()->getPriority(), 12u);
    EXPECT_EQ(record->getAttributes()->getSignature(), TlxString("a<&b\nc"));
}

TEST_F(DiscDataXmlTest, WhatIsUnknownIsSkippedWithAllInsideIt)
{
    const LogCapture log;
    const Record record =
        read("<Other><DiscoverySubject Name=\"x\"/></Other>"
             "<Priority>5</Priority><DiscoveryData><DiscoverySubject Name=\"x\"/></DiscoveryData>"
             "<DiscoveryAuthority Name=\"a\" Type=\"1\"><DiscoverySubject Name=\"x\"/>"
             "<Other><STATUSMSG>x</STATUSMSG></Other></DiscoveryAuthority>"
             "<DiscoveryAttributes Type=\"0\" Storage=\"0\"><DiscoverySubject Name=\"x\"/>"
             "<Other><Priority>5</Priority></Other></DiscoveryAttributes>");
    EXPECT_EQ(record->getSubject(), nullptr);
    ASSERT_TRUE(record->getAuthority());
    EXPECT_EQ(record->getAuthority()->getStatusMsg(), nullptr);
    ASSERT_TRUE(record->getAttributes());
    EXPECT_EQ(record->getAttributes()->getPriority(), 0u);
    EXPECT_EQ(log.texts(1), Texts{});
}

TEST_F(DiscDataXmlTest, NamesOfElementsAreComparedToTheLetter)
{
    const Record record = read("<discoverysubject Name=\"x\"/><DiscoverySubject Name=\"s\">"
                               "<statusmsg>x</statusmsg></DiscoverySubject>"
                               "<DiscoveryAttributes Type=\"0\" Storage=\"0\">"
                               "<priority>5</priority></DiscoveryAttributes>");
    ASSERT_TRUE(record->getSubject() && record->getAttributes());
    EXPECT_TRUE(*record->getSubject() == Subject("s"));
    EXPECT_EQ(record->getSubject()->getStatusMsg(), nullptr);
    EXPECT_EQ(record->getAttributes()->getPriority(), 0u);
    const LogCapture log;
    EXPECT_EQ(read("<DiscoverySubject name=\"x\"/>")->getSubject(), nullptr);
    EXPECT_EQ(log.texts(1), Texts{"Subject name not specified"});
}

TEST_F(DiscDataXmlTest, AnotherDocumentElementHoldsNothing)
{
    const AssertionCapture assertions;
    const Record record = empty();
    for (const char* name : {"Other", "discoverydata", "DiscoverySubject"}) {
        const std::string text = std::string("<") + name + " Name=\"x\"><DiscoverySubject " +
                                 "Name=\"x\"/></" + name + ">";
        EXPECT_TRUE(record->parseBuffer(text)) << text;
        EXPECT_EQ(record->getSubject(), nullptr) << text;
    }
    EXPECT_EQ(assertions.texts(), Texts{});
}

TEST_F(DiscDataXmlTest, AMissingNameIsLoggedAndTheRestIsRead)
{
    const LogCapture log;
    const Record record =
        read("<DiscoveryAuthority Name=\"\" Type=\"9\"><STATUSMSG>x</STATUSMSG>"
             "</DiscoveryAuthority><DiscoverySubject><X/></DiscoverySubject>"
             "<DiscoveryAttributes Type=\"0\" Storage=\"0\"><Priority>7</Priority>"
             "</DiscoveryAttributes>");
    EXPECT_EQ(log.texts(1), (Texts{"Authority name not specified", "Subject name not specified"}));
    for (const LogCapture::Line& line : log.lines()) {
        EXPECT_EQ(line.source, "../DiscData");
        EXPECT_EQ(line.operation, "Discovery::xmlStartElement");
        EXPECT_EQ(line.originator, 400u);
    }
    EXPECT_EQ(record->getAuthority(), nullptr);
    EXPECT_EQ(record->getSubject(), nullptr);
    ASSERT_TRUE(record->getAttributes());
    EXPECT_EQ(record->getAttributes()->getPriority(), 7u);
}

TEST_F(DiscDataXmlTest, WrongValuesAreLoggedAndLeaveTheField)
{
    const LogCapture log;
    const Record record = readAttributes(
        "<Priority>high</Priority><DiscoveryTime>x</DiscoveryTime><ExpiresTime>y</ExpiresTime>");
    EXPECT_EQ(log.texts(1),
              (Texts{"Unable to convert priority ", "Unable to convert discovery time ",
                     "Unable to convert expires time "}));
    for (const LogCapture::Line& line : log.lines()) {
        EXPECT_EQ(line.source, "../DiscData");
        EXPECT_EQ(line.operation, "Discovery::xmlEndElement");
        EXPECT_EQ(line.originator, 400u);
    }
    EXPECT_EQ(record->getAttributes()->getPriority(), 0u);
    EXPECT_TRUE(record->getAttributes()->getDiscoveryTime().isZero());
    EXPECT_TRUE(record->getAttributes()->getExpiresTime().isZero());
    EXPECT_FALSE(record->isDocumentRefused());
}

TEST_F(DiscDataXmlTest, AFieldKeepsItsValueWhenAnotherOneIsWrong)
{
    for (const char* none : {"", "-1", "4294967296", "1e3", "0x1", "5 5"}) {
        const LogCapture log;
        const Record record =
            readAttributes(std::string("<Priority>5</Priority><Priority>") + none + "</Priority>");
        EXPECT_EQ(record->getAttributes()->getPriority(), 5u) << none;
        EXPECT_EQ(log.texts(1), Texts{"Unable to convert priority "}) << none;
    }
    for (const char* none : {"", ".", "1.", "1.1234567", "9223372036854775808", "1,5", "now"}) {
        const LogCapture log;
        const Record record =
            readAttributes(std::string("<DiscoveryTime>5.5</DiscoveryTime><DiscoveryTime>") + none +
                           "</DiscoveryTime><ExpiresTime>6.5</ExpiresTime><ExpiresTime>" + none +
                           "</ExpiresTime>");
        EXPECT_EQ(record->getAttributes()->getDiscoveryTime(), TlxObjTime(5, 500000)) << none;
        EXPECT_EQ(record->getAttributes()->getExpiresTime(), TlxObjTime(6, 500000)) << none;
        EXPECT_EQ(log.texts(1),
                  (Texts{"Unable to convert discovery time ", "Unable to convert expires time "}))
            << none;
    }
}

TEST_F(DiscDataXmlTest, AnEnumeratorOutOfRangeRefusesTheDocument)
{
    const auto attributes = [](const std::string& type, const std::string& storage) {
        return "<DiscoveryAttributes Type=\"" + type + "\" Storage=\"" + storage + "\"/>";
    };
    const std::vector<std::pair<std::string, Texts>> cases{
        {"<DiscoveryAuthority Name=\"a\" Type=\"5\"/>", {"Unknown authority type \"5\""}},
        {"<DiscoveryAuthority Name=\"a\" Type=\"-1\"/>", {"Unknown authority type \"-1\""}},
        {"<DiscoveryAuthority Name=\"a\"/>", {"Unknown authority type \"\""}},
        {attributes("3", "1"), {"Unknown collection type \"3\""}},
        {attributes("2", "2"), {"Unknown collection storage \"2\""}},
        {attributes("x", "4294967296"),
         {"Unknown collection type \"x\"", "Unknown collection storage \"4294967296\""}},
    };
    for (const auto& [content, texts] : cases) {
        const LogCapture log;
        const Record record = read(content);
        EXPECT_TRUE(record->isDocumentRefused()) << content;
        EXPECT_EQ(log.texts(1), texts) << content;
        EXPECT_EQ(log.lines().at(0).source, "../DiscData");
        EXPECT_EQ(log.lines().at(0).operation, "Discovery::xmlStartElement");
        record->clearDocumentRefused();
        EXPECT_FALSE(record->isDocumentRefused());
    }
    for (const char* type : {"0", "1", "2", "3", "4"})
        EXPECT_FALSE(read(std::string("<DiscoveryAuthority Name=\"a\" Type=\"") + type + "\"/>")
                         ->isDocumentRefused());
    EXPECT_FALSE(read(attributes("2", "1"))->isDocumentRefused());
}

TEST_F(DiscDataXmlTest, WhatOnlyXml11CarriesIsReplacedOrEncoded)
{
    const Record record = empty();
    ASSERT_TRUE(record->parseBuffer(
        "<?xml version=\"1.1\"?><DiscoveryData><DiscoverySubject Name=\"s&#1;\">"
        "<STATUSMSG Code=\"1\">m&#2;</STATUSMSG></DiscoverySubject>"
        "<DiscoveryAttributes Type=\"0\" Storage=\"0\"><Signature>x&#3;</Signature>"
        "</DiscoveryAttributes></DiscoveryData>"));
    EXPECT_EQ(record->getSubject()->getSubject(), TlxString("s%01"));
    EXPECT_EQ(record->getSubject()->getStatusMsg()->text(), TlxString("m\xef\xbf\xbd"));
    EXPECT_EQ(record->getAttributes()->getSignature(), TlxString("x\xef\xbf\xbd"));
    const Record copy = empty();
    ASSERT_TRUE(copy->parseBuffer(written(*record)));
    EXPECT_EQ(written(*copy), written(*record));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
