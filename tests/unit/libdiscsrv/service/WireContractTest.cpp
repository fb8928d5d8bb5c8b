// The wire contract, on which peers built elsewhere rely.

#include <DiscoverySvc.hh>

#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <tlx/Orb.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

/// The bytes on the wire. Numbers are aligned to their size. A string has its length first, which
/// includes the NUL byte at the end, and then its bytes.
class Expected
{
  public:
    template <class Number>
    Expected& number(Number value)
    {
        m_bytes.resize((m_bytes.size() + sizeof value - 1) / sizeof value * sizeof value);
        m_bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
        return *this;
    }
    Expected& text(const std::string& value)
    {
        number<CORBA::ULong>(static_cast<CORBA::ULong>(value.size() + 1));
        m_bytes.append(value.c_str(), value.size() + 1);
        return *this;
    }
    const std::string& bytes() const { return m_bytes; }

  private:
    std::string m_bytes;
};

template <class Value>
std::string bytesOf(const Value& value)
{
    cdrMemoryStream stream(0, true); // zeroed, so that the padding has known bytes
    value >>= stream;
    return std::string(static_cast<const char*>(stream.bufPtr()), stream.bufSize());
}

template <class Value>
Value sent(const Value& value)
{
    cdrMemoryStream stream;
    value >>= stream;
    Value copy;
    copy <<= stream;
    return copy;
}

struct WireContractTest : testing::Test
{
    const Orb orb{true, "", "", false}; // strings travel in its code sets
};

TEST_F(WireContractTest, EnumeratorsHaveTheirValues)
{
    EXPECT_EQ((std::vector<int>{CT_CONFIGURATION, CT_REAL_TIME, CT_POINT_IN_TIME}),
              (std::vector<int>{0, 1, 2}));
    EXPECT_EQ((std::vector<int>{CS_LOCALONLY, CS_CENTRALREPOSITORY}), (std::vector<int>{0, 1}));
    EXPECT_EQ(
        (std::vector<int>{AT_ANYANDALL, AT_QMKSERVER, AT_QMKCLIENT, AT_EXTSRC, AT_REMOTEPULL}),
        (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ((std::vector<int>{OM_UPDATE, OM_READ}), (std::vector<int>{0, 1}));
    EXPECT_EQ((std::vector<int>{DS_SUCCESS, DS_NONE_FOUND, DS_LOGIC_ERROR, DS_OPEN_FAILED,
                                DS_COM_ERROR, DS_DATA_EXISTS}),
              (std::vector<int>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ((std::vector<int>{DQ_UNDEFINED, DQ_DISCOVERY_DATA, DQ_FILTER_DATA}),
              (std::vector<int>{0, 1, 2}));
}

TEST_F(WireContractTest, NumbersHaveTheirSizes)
{
    EXPECT_TRUE((std::is_same_v<PollingInterval, CORBA::ULongLong>));
    EXPECT_TRUE((std::is_same_v<ExplorerPriority, CORBA::ULong>));
    EXPECT_TRUE((std::is_same_v<decltype(Remote::CollAttributes::priority), CORBA::Long>));
    EXPECT_TRUE((std::is_same_v<decltype(Remote::CollAttributes::timeToLive), CORBA::ULongLong>));
    EXPECT_TRUE(
        (std::is_same_v<decltype(Remote::CollAttributes::discoveryTime), CORBA::ULongLong>));
}

TEST_F(WireContractTest, InterfacesHaveTheirRepositoryIds)
{
    EXPECT_STREQ(Remote::DiscoveryIterator::_PD_repoId,
                 "IDL:Veltrane/Quillmark/Tlx/DiscoverySvc/Remote/DiscoveryIterator:1.0");
    EXPECT_STREQ(Remote::CollectionDataIterator::_PD_repoId,
                 "IDL:Veltrane/Quillmark/Tlx/DiscoverySvc/Remote/CollectionDataIterator:1.0");
    EXPECT_STREQ(Remote::RemoteWriter::_PD_repoId,
                 "IDL:Veltrane/Quillmark/Tlx/DiscoverySvc/Remote/RemoteWriter:1.0");
    EXPECT_STREQ(Remote::DiscoveryService::_PD_repoId,
                 "IDL:Veltrane/Quillmark/Tlx/DiscoverySvc/Remote/DiscoveryService:1.0");
}

TEST_F(WireContractTest, ARecordsMembersTravelInTheirOrder)
{
    Remote::Discovery record;
    record.queryType = DQ_FILTER_DATA;
    record.subject = "cl5";
    record.authority = "srv1";
    record.authType = AT_REMOTEPULL;
    record.attributes = {CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, -5, 7, 8};
    record.sourceHost = "host";
    record.sourceServiceName = "service";
    EXPECT_EQ(bytesOf(record), Expected()
                                   .number<CORBA::ULong>(2)
                                   .text("cl5")
                                   .text("srv1")
                                   .number<CORBA::ULong>(4)
                                   .number<CORBA::ULong>(2)
                                   .number<CORBA::ULong>(1)
                                   .number<CORBA::Long>(-5)
                                   .number<CORBA::ULongLong>(7)
                                   .number<CORBA::ULongLong>(8)
                                   .text("host")
                                   .text("service")
                                   .bytes());
}

TEST_F(WireContractTest, AResultsMembersTravelInTheirOrder)
{
    EXPECT_EQ(bytesOf(DiscoveryResult{DS_DATA_EXISTS, 9}),
              Expected().number<CORBA::ULong>(5).number<CORBA::ULongLong>(9).bytes());
    EXPECT_EQ(sent(DiscoveryResult{DS_COM_ERROR, 10}).retryInterval, 10u);
}

TEST_F(WireContractTest, EmptyStringsStayEmpty)
{
    Remote::Discovery record;
    record.queryType = DQ_UNDEFINED;
    record.subject = "";
    record.authority = "";
    record.authType = AT_ANYANDALL;
    record.attributes = {CT_CONFIGURATION, CS_LOCALONLY, 0, 0, 0};
    record.sourceHost = "";
    record.sourceServiceName = "";
    const Remote::Discovery copy = sent(record);
    EXPECT_STREQ(copy.subject, "");
    EXPECT_STREQ(copy.authority, "");
    EXPECT_STREQ(copy.sourceHost, "");
    EXPECT_STREQ(copy.sourceServiceName, "");
    EXPECT_EQ(bytesOf(copy), bytesOf(record));
}

TEST_F(WireContractTest, EmptyPagesAreValues)
{
    EXPECT_EQ(bytesOf(Remote::DiscoverySeq()), Expected().number<CORBA::ULong>(0).bytes());
    EXPECT_EQ(bytesOf(Remote::CollectionDataSeq()), Expected().number<CORBA::ULong>(0).bytes());
    EXPECT_EQ(sent(Remote::DiscoverySeq()).length(), 0u);
    EXPECT_EQ(sent(Remote::CollectionDataSeq()).length(), 0u);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
