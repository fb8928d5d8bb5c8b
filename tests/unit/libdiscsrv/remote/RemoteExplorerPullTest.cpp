// The explorer of another host: its pulls and its failures.

#include "RemoteExplorerPull.h"

#include <vector>

#include <gtest/gtest.h>

#include "RemoteFixture.h"
#include "support/Capture.h"
#include "support/MemoryData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::NO_MEMORY;

/// The explorer of another host.
struct RemoteExplorerPullTest : QmTest::RemoteFixture
{
    /// Counts the pulled bytes.
    struct Sink : CollectionData
    {
        bool open(OpenMode mode, const char*) override
        {
            ++opens;
            return mode == OM_UPDATE && opens != failsAt;
        }
        std::size_t readCollection(std::size_t, void*) const override { return 0; }
        bool writeCollection(std::size_t length, const void*) const override
        {
            lengths.push_back(length);
            return true;
        }
        int opens = 0;
        int failsAt = 0;
        mutable std::vector<std::size_t> lengths;
    };
    bool pull(const std::string& subject, const char* text = "")
    {
        AutoDereference<TLXRefCounted> context;
        return explorer->collectionRequested(DQ_DISCOVERY_DATA, Authority("a", AT_EXTSRC),
                                             Subject(subject), context, text, &sink);
    }
    const AutoDereference<RemoteExplorerPull> explorer{
        new RemoteExplorerPull("DiscoveryService", "peer", "s", "a", AT_QMKCLIENT)};
    Sink sink;
};

TEST_F(RemoteExplorerPullTest, CopiesInReadsOf1024)
{
    EXPECT_TRUE(pull("bytes-2500", "filter"));
    EXPECT_EQ(sink.lengths, (std::vector<std::size_t>{1024, 1024, 452}));
    EXPECT_EQ(sink.opens, 2);
    EXPECT_EQ(asked(), "query 1 2 a bytes-2500;page;page;release;"
                       "get bytes-2500 [filter];release;get bytes-2500 [];release;");
}

TEST_F(RemoteExplorerPullTest, WantsExactlyOneRecord)
{
    LogCapture log;
    EXPECT_FALSE(pull("records-0"));
    EXPECT_EQ(log.texts(1), Lines{"No records found!"});
    log.clear();
    EXPECT_FALSE(pull("records-2"));
    EXPECT_EQ(log.texts(1), Lines{"Too many records found"});
    EXPECT_EQ(sink.opens, 0);
    EXPECT_EQ(log.lines().back().operation, "RemotePullExplorer::collectionRequested");
}

TEST_F(RemoteExplorerPullTest, AFailedQueryIsLogged)
{
    const std::string text = "Caught CORBA Exception while querying for discoveries: ";
    LogCapture log;
    EXPECT_FALSE(pull("throw"));
    EXPECT_EQ(log.texts(1), Lines{text + NO_MEMORY});
    log.clear();
    EXPECT_FALSE(pull("throw-page"));
    EXPECT_EQ(log.texts(1), Lines{text + NO_MEMORY});
}

TEST_F(RemoteExplorerPullTest, TheMessagesOfSourceAndTargetAreSwapped)
{
    LogCapture log;
    EXPECT_FALSE(pull("none"));
    EXPECT_EQ(log.texts(1).back(), "Failed to target open collection data");
    log.clear();
    sink.failsAt = 1;
    EXPECT_FALSE(pull("bytes-10"));
    EXPECT_EQ(log.texts(1), Lines{"Failed to source open colection data"});
    log.clear();
    sink.opens = 0;
    sink.failsAt = 2;
    EXPECT_FALSE(pull("bytes-10"));
    EXPECT_EQ(log.texts(1), Lines{}) << "the second time there is no message";
}

TEST_F(RemoteExplorerPullTest, AnEmptyCollectionCannotBeOpened)
{
    const LogCapture log;
    EXPECT_FALSE(pull("bytes-0"));
    EXPECT_EQ(log.texts(1), (Lines{"Collection data returned has no data",
                                   "Failed to target open collection data"}));
    // The copy itself accepts an empty collection.
    copyCollection(QmTest::MemoryData(), sink);
    EXPECT_EQ(sink.lengths, std::vector<std::size_t>{});
}

TEST_F(RemoteExplorerPullTest, AHostThatIsDownIsReported)
{
    peer.kill();
    const LogCapture log;
    EXPECT_FALSE(pull("bytes-10"));
    EXPECT_EQ(log.texts(1), (Lines{"Failed to connect to remote discovery service",
                                   "Failed to connect to discovery service"}));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
