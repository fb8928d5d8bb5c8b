// The parts of the in-memory backend that callers and log readers see: the names of its operations,
// and the retry interval of its results.

#include "DiscMem.h"

#include <gtest/gtest.h>

#include "ExplorerFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::FakePull;
using QmTest::Lines;
using QmTest::LogCapture;

struct DiscMemTraceTest : testing::Test
{
    DiscMemTraceTest()
    {
        const Subject subject("s");
        const Authority authority("a", AT_QMKCLIENT);
        query.reset(new ExplorerQuery(AutoDereference<ExplorerWrapper>(
            new ExplorerWrapper(pull.get(), 3u, &subject, &authority))));
    }
    AutoDereference<Discovery> record() const
    {
        return AutoDereference<Discovery>(
            getDiscoveryMemDatbase()->newDiscovery(query, DQ_DISCOVERY_DATA));
    }
    /// The operations of the backend that were traced, in the order in which they began.
    static Lines operations(const LogCapture& log)
    {
        Lines names;
        for (const LogCapture::Line& line : log.lines())
            if (line.text == "enter" && line.source == "../DiscDB")
                names.push_back(line.operation);
        return names;
    }

    const AutoDereference<FakePull> pull{new FakePull};
    AutoDereference<ExplorerQuery> query;
};

TEST_F(DiscMemTraceTest, ARecordTracesItsOperations)
{
    const LogCapture log(LOG_LEVEL_TRACE);
    const auto discovery = record();
    discovery->open(OM_READ, "");
    char buffer[4];
    discovery->getCollectionData()->readCollection(sizeof buffer, buffer);
    discovery->persist();
    EXPECT_EQ(operations(log),
              (Lines{"DiscoveryMemCreator::newDiscovery", "MemDiscovery::open",
                     "MemCollectionData::getNext", "MemCollectionData::getNext",
                     "MemCollectionData::writeCollection", "MemCollectionData::readCollection",
                     "MemDiscovery::persist"}))
        << "an open has the name getNext; the second one is the explorer's own";
}

TEST_F(DiscMemTraceTest, AnIteratorTracesItsOperations)
{
    const LogCapture log(LOG_LEVEL_TRACE);
    const AutoDereference<DiscoveryIterator> iterator(
        getDiscoveryMemDatbase()->getIterator({query}, DQ_DISCOVERY_DATA));
    const AutoDereference<Discovery> first(iterator->getNext());
    EXPECT_TRUE(first);
    EXPECT_EQ(iterator->getNext(), nullptr);
    EXPECT_EQ(operations(log),
              (Lines{"DiscoveryMemCreator::getIterator", "MemDiscoveryIterator::getNext",
                     "DiscoveryMemCreator::newDiscovery", "MemDiscoveryIterator::getNext"}));
}

TEST_F(DiscMemTraceTest, NoResultAsksForARetry)
{
    const auto discovery = record();
    EXPECT_EQ(discovery->open(OM_READ, "").retryInterval, 0u);
    EXPECT_EQ(discovery->persist().retryInterval, 0u);
    pull->answer = false;
    const DiscoveryResult failed = discovery->open(OM_READ, "");
    EXPECT_EQ(failed.discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(failed.retryInterval, 0u);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
