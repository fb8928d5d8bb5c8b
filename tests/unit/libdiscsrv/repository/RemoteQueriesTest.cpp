// Forwarding a query, without a repository.

#include "RemoteQueries.h"

#include "PeerLink.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::Lines;
using QmTest::LogCapture;

struct RemoteQueriesTest : testing::Test
{
    DiscoveryIterator* query(const char* master)
    {
        const LogScope scope("caller");
        return forwardQuery(link, TlxHostname(master), DQ_DISCOVERY_DATA, "s", "a", AT_ANYANDALL);
    }
    PeerLink link;
    AssertionCapture assertions;
    LogCapture log;
};

TEST_F(RemoteQueriesTest, WithoutAMasterNobodyIsAsked)
{
    EXPECT_EQ(query(""), nullptr);
    EXPECT_EQ(log.texts(1), Lines{"Cannot find master server name, abort connecting to master "
                                  "discovery service"});
    EXPECT_EQ(log.lines()[0].operation, "caller");
    EXPECT_EQ(assertions.texts(), Lines{});
}

TEST_F(RemoteQueriesTest, AMasterThatCannotBeReachedIsTwoLines)
{
    EXPECT_EQ(query("master1"), nullptr); // there is no service, so no ORB to reach it with
    EXPECT_EQ(log.texts(1), (Lines{"Failed to connect to remote discovery service",
                                   "Failed to connect to discovery service"}));
}

TEST_F(RemoteQueriesTest, BeyondTheBoundOfTheLinkAQueryIsRefusedUntilAnotherEnds)
{
    std::vector<std::unique_ptr<InFlight>> others;
    for (unsigned i = 0; i < PeerLink::MAX_FORWARDED_QUERIES; ++i)
        others.push_back(std::make_unique<InFlight>(link.forwardedQueries()));
    EXPECT_EQ(query("master1"), nullptr);
    EXPECT_EQ(log.texts(1), Lines{"32 queries are being forwarded already"});
    EXPECT_EQ(assertions.texts(), Lines{}) << "nothing was connected";
    others.pop_back();
    log.clear();
    EXPECT_EQ(query("master1"), nullptr);
    EXPECT_EQ(log.texts(1).back(), "Failed to connect to discovery service");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
