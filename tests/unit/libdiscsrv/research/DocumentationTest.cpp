// Reads and writes the documented examples of stored documents.

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "RemoteExplorerPull.h"
#include "ServiceFixture.h"
#include "XMLHelper.h"
#include "support/Capture.h"
#include "support/Documentation.h"
#include "support/PlainDiscovery.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::codeOf;
using QmTest::contentOf;
using QmTest::Lines;
using QmTest::LogCapture;

TEST(DocumentationTest, TheMetadataDocument)
{
    const Lines blocks = codeOf("The store");
    ASSERT_EQ(blocks.size(), 2u);
    const std::string example = QmTest::onOneLine(blocks[1]);
    const LogCapture log;
    const AutoDereference<QmTest::PlainDiscovery> record(new QmTest::PlainDiscovery);
    ASSERT_TRUE(record->parseBuffer(example));
    EXPECT_EQ(record->getSubject()->getSubject(), TlxString("cl5"));
    EXPECT_EQ(record->getAuthority()->getName(), TlxString("srv1"));
    EXPECT_EQ(record->getAuthority()->getType(), AT_QMKSERVER);
    EXPECT_EQ(record->getAttributes()->getPriority(), 5u);
    EXPECT_EQ(record->getAttributes()->getDiscoveryTime(), TlxObjTime(1795243843, 0));
    EXPECT_EQ(log.texts(1), Lines());
    EXPECT_EQ(QmTest::written(*record), example);
}

TEST(DocumentationTest, TheRecordOfAnotherHostsExplorer)
{
    const Lines blocks = codeOf("The record of another host's explorer");
    ASSERT_EQ(blocks.size(), 1u);
    TlxString service;
    TlxString host;
    unsigned priority = 0;
    AuthorityType type = AT_ANYANDALL;
    astringstream text(blocks[0]);
    EXPECT_EQ(XMLHelper().parse(text, service, host, priority, type), 0);
    EXPECT_EQ(service, TlxString("DiscoveryService"));
    EXPECT_EQ(host, TlxString("client1"));
    EXPECT_EQ(priority, 5u);
    EXPECT_EQ(type, AT_EXTSRC);

    if (!QmTest::mayOpenRecords())
        GTEST_SKIP() << "records have permissions 0: this needs root";
    const QmTest::Service service1;
    const Subject subject("s");
    const Authority authority("a", type);
    const AutoDereference<RemoteExplorerPull> explorer(
        new RemoteExplorerPull(service, host, "s", "a", type));
    getDiscoveryRepository()->registerExplorer(&subject, explorer.get(), priority, &authority,
                                               false);
    EXPECT_EQ(contentOf(service1.store() / "4 a s.dat"), blocks[0]);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
