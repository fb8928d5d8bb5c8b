// The bytes of a discovery as the source of a document.

#include "DiscoverySetSource.h"

#include <gtest/gtest.h>

#include "ItemsFixture.h"
#include "PeerLink.h"
#include "support/MemoryData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::MemoryData;

TEST(DiscoverySetSourceTest, CountsWhatItReads)
{
    initialiseXml();
    const MemoryData data("abcdefgh", 5);
    const DiscoverySetInputSource source(data, "sysid");
    EXPECT_EQ(TlxString::fromXmlCh(source.getSystemId()), TlxString("sysid"));
    const std::unique_ptr<xercesc::BinInputStream> stream(source.makeStream());
    EXPECT_EQ(stream->getContentType(), nullptr);
    EXPECT_EQ(stream->curPos(), 0u);
    XMLByte buffer[16];
    EXPECT_EQ(stream->readBytes(buffer, 4), 4u);
    EXPECT_EQ(stream->curPos(), 4u);
    EXPECT_EQ(std::string(buffer, buffer + 4), "abcd");
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 4u);
    EXPECT_EQ(stream->curPos(), 8u);
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 0u);
    EXPECT_EQ(stream->curPos(), 8u);
}

TEST(DiscoverySetSourceTest, ReadsNothingOnceTheServiceEnds)
{
    initialiseXml();
    const MemoryData data("abcdefgh");
    const DiscoverySetInputSource source(data, "sysid");
    const std::unique_ptr<xercesc::BinInputStream> stream(source.makeStream());
    XMLByte buffer[4];
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 4u);
    getPeerLink().announceShutdown();
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 0u);
    EXPECT_EQ(stream->curPos(), 4u);
}

TEST(DiscoverySetSourceTest, AFailedReadReadsNothing)
{
    initialiseXml();
    const MemoryData data("a", 1, MemoryData::ET_MINUS_ONE);
    const DiscoverySetInputSource source(data, "sysid");
    const std::unique_ptr<xercesc::BinInputStream> stream(source.makeStream());
    XMLByte buffer[16];
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 1u);
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 0u);
    EXPECT_EQ(stream->curPos(), 1u);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
