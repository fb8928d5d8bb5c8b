// The record model and its metadata document.

#include "DiscData.h"

#include <sstream>

#include <gtest/gtest.h>

#include "Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::LogCapture;

class NoData : public CollectionData
{
  public:
    bool open(OpenMode, const char*) override { return true; }
    std::size_t readCollection(std::size_t, void*) const override { return 0; }
    bool writeCollection(std::size_t, const void*) const override { return true; }
};

class PlainDiscovery : public Discovery
{
  public:
    PlainDiscovery() : Discovery(new NoData, DQ_DISCOVERY_DATA) {}
    DiscoveryResult persist() override { return {DS_SUCCESS, 0}; }
    DiscoveryResult open(OpenMode, const char*) override { return {DS_SUCCESS, 0}; }
    using Discovery::isDocumentRefused;
};

class PlainIterator : public DiscoveryIterator
{
  public:
    PlainIterator() : DiscoveryIterator(AT_ANYANDALL, "*", "*") {}
    Discovery* getNext() override { return nullptr; }
};

std::string written(const XmlInterface& object)
{
    std::ostringstream out;
    object.writeXml(out, XmlStr::XE_UTF8);
    return out.str();
}

struct DiscDataTest : testing::Test
{
    ~DiscDataTest() override { TlxObjTime::setClock({}); }
    void setNow(TlxObjTime now)
    {
        TlxObjTime::setClock([now] { return now; });
    }
};

TEST_F(DiscDataTest, SubjectsThatDifferInCaseAreEqual)
{
    EXPECT_TRUE(Subject("HostA") == Subject("hosta"));
    EXPECT_FALSE(Subject("HostA") > Subject("hosta"));
    EXPECT_TRUE(Subject("b") > Subject("A"));
}

TEST_F(DiscDataTest, AuthoritiesOfOtherTypesAreNotEqual)
{
    EXPECT_FALSE(Authority("x", AT_QMKSERVER) == Authority("X", AT_QMKCLIENT));
    EXPECT_TRUE(Authority("x", AT_QMKSERVER) == Authority("X", AT_QMKSERVER));
}

TEST_F(DiscDataTest, AnAuthorityOfGreaterTypeIsGreaterAlthoughItsNameIsLess)
{
    EXPECT_TRUE(Authority("a", AT_REMOTEPULL) > Authority("b", AT_QMKSERVER));
    EXPECT_TRUE(Authority("b", AT_QMKSERVER) > Authority("a", AT_REMOTEPULL));
    EXPECT_FALSE(Authority("a", AT_QMKSERVER) > Authority("b", AT_QMKSERVER));
}

TEST_F(DiscDataTest, ANameHasADisplayFormAndAFileNameForm)
{
    const Subject subject("a b/c%41");
    EXPECT_EQ(subject.getSubject().utf8(), "a%20b/cA");
    EXPECT_EQ(subject.getSubjectFileName().utf8(), "a%20b%2FcA");
    const Authority authority("s\xc3\xa9", AT_EXTSRC);
    EXPECT_EQ(authority.getName().utf8(), "s\xc3\xa9");
    EXPECT_EQ(authority.getNameFileName().utf8(), "s%C3%A9");
}

TEST_F(DiscDataTest, EmptyNamesAreReported)
{
    const AssertionCapture assertions;
    const Subject subject("");
    const Authority authority("", AT_EXTSRC);
    EXPECT_EQ(assertions.texts(),
              (std::vector<std::string>{"m_subject.size()", "name.size()", "m_name.size()"}));
}

TEST_F(DiscDataTest, ARecordLivesAQuarterLongerThanItsTimeToLive)
{
    setNow(TlxObjTime(1000, 500));
    const CollectionAttributes attributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, TlxObjTime(),
                                          TlxObjTime(100), 0);
    EXPECT_EQ(attributes.getExpiresTime(), TlxObjTime(1125, 500));
    const CollectionAttributes odd(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, TlxObjTime(),
                                   TlxObjTime(1), 0);
    EXPECT_EQ(odd.getExpiresTime(), TlxObjTime(1001, 250500));
}

TEST_F(DiscDataTest, ATimeToLiveOfZeroNeverExpiresAndAHugeOneSaturates)
{
    const CollectionAttributes zero(CT_POINT_IN_TIME, CS_LOCALONLY, TlxObjTime(), TlxObjTime(), 0);
    EXPECT_TRUE(zero.getExpiresTime().isZero());
    const CollectionAttributes huge(CT_POINT_IN_TIME, CS_LOCALONLY, TlxObjTime(), TlxObjTime::max(),
                                    0);
    EXPECT_EQ(huge.getExpiresTime(), TlxObjTime::max());
}

TEST_F(DiscDataTest, AnIteratorIsNotNarrowedByEmptyNamesAndWildcards)
{
    PlainIterator iterator;
    iterator.setSubject("cl 5");
    iterator.setSubject("*");
    iterator.setSubject("");
    EXPECT_EQ(iterator.getSubject(), "cl%205");
    iterator.setAuthority("cl*", AT_QMKCLIENT);
    iterator.setAuthority("*x", AT_EXTSRC);
    EXPECT_EQ(iterator.getAuthority(), "cl*");
    EXPECT_EQ(iterator.getType(), AT_EXTSRC);
}

TEST_F(DiscDataTest, BareAttributesWriteOnlyTheirPriority)
{
    const CollectionAttributes attributes(CT_CONFIGURATION, CS_LOCALONLY, TlxObjTime(),
                                          TlxObjTime(), 7);
    EXPECT_EQ(written(attributes), "<DiscoveryAttributes Type=\"0\" Storage=\"0\">"
                                   "<Priority>7</Priority></DiscoveryAttributes>");
}

TEST_F(DiscDataTest, WhatIsWrittenReadsBackEqual)
{
    setNow(TlxObjTime(1700000000));
    const auto message = AutoDereference<StatusMsg>(new StatusMsg(17, "half <done>"));
    AutoDereference<PlainDiscovery> record(new PlainDiscovery);
    record->setAuthority(new Authority("srv \"1\"", AT_QMKSERVER));
    record->setSubject(new Subject("cl&5", message.get()));
    record->setAttributes(new CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                   TlxObjTime(1600000000, 25), TlxObjTime(100), 9));
    record->getAttributes()->setSignature("a<b");
    AutoDereference<PlainDiscovery> copy(new PlainDiscovery);
    ASSERT_TRUE(copy->parseBuffer(written(*record)));
    EXPECT_FALSE(copy->isDocumentRefused());
    ASSERT_TRUE(copy->getAuthority() && copy->getSubject() && copy->getAttributes());
    EXPECT_TRUE(*copy->getAuthority() == *record->getAuthority());
    EXPECT_TRUE(*copy->getSubject() == *record->getSubject());
    ASSERT_TRUE(copy->getSubject()->getStatusMsg());
    EXPECT_EQ(copy->getSubject()->getStatusMsg()->code(), 17);
    EXPECT_EQ(copy->getSubject()->getStatusMsg()->text(), TlxString("half <done>"));
    const CollectionAttributes& attributes = *copy->getAttributes();
    EXPECT_EQ(attributes.getType(), CT_POINT_IN_TIME);
    EXPECT_EQ(attributes.getStorage(), CS_CENTRALREPOSITORY);
    EXPECT_EQ(attributes.getPriority(), 9u);
    EXPECT_EQ(attributes.getDiscoveryTime(), TlxObjTime(1600000000, 25));
    EXPECT_EQ(attributes.getExpiresTime(), TlxObjTime(1700000125));
    EXPECT_EQ(attributes.getSignature(), TlxString("a<b"));
    EXPECT_TRUE(attributes.getTimeToLive().isZero());
}

TEST_F(DiscDataTest, ValuesThatAreNoneAreLoggedAndLeaveTheField)
{
    const LogCapture log;
    AutoDereference<PlainDiscovery> record(new PlainDiscovery);
    ASSERT_TRUE(record->parseBuffer(
        "<DiscoveryData><DiscoveryAuthority Name=\"\" Type=\"1\"><X/></DiscoveryAuthority>"
        "<DiscoverySubject Name=\"\"/><DiscoveryAttributes Type=\"0\" Storage=\"0\">"
        "<Priority>high</Priority><DiscoveryTime>x</DiscoveryTime><ExpiresTime>y</ExpiresTime>"
        "</DiscoveryAttributes></DiscoveryData>"));
    EXPECT_EQ(log.texts(1), (std::vector<std::string>{
                                "Authority name not specified", "Subject name not specified",
                                "Unable to convert priority ", "Unable to convert discovery time ",
                                "Unable to convert expires time "}));
    EXPECT_EQ(log.lines().front().source, "../DiscData");
    EXPECT_EQ(record->getAuthority(), nullptr);
    EXPECT_EQ(record->getSubject(), nullptr);
    ASSERT_TRUE(record->getAttributes());
    EXPECT_EQ(record->getAttributes()->getPriority(), 0u);
}

TEST_F(DiscDataTest, AnEnumeratorOutOfRangeRefusesTheDocument)
{
    const LogCapture log;
    AutoDereference<PlainDiscovery> record(new PlainDiscovery);
    ASSERT_TRUE(record->parseBuffer(
        "<DiscoveryData><DiscoveryAuthority Name=\"a\" Type=\"5\"/></DiscoveryData>"));
    EXPECT_TRUE(record->isDocumentRefused());
    EXPECT_TRUE(log.has(1, "Unknown authority type \"5\""));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
