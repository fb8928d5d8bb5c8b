// The counters of the service.

#include "ServiceCounters.h"

#include <string>

#include <gtest/gtest.h>

#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

std::string all()
{
    std::string text;
    for (const CounterValue& counter : serviceCounters())
        text += std::string(counter.name) + '=' + std::to_string(counter.value) + ' ';
    return text;
}

TEST(ServiceCountersTest, EveryCounterHasItsName)
{
    EXPECT_EQ(all(), "queries=0 recordsReturned=0 reads=0 bytesRead=0 writes=0 bytesWritten=0 "
                     "recordsStored=0 writersLeft=0 requestsRefused=0 failedAssertions=0 ");
    countService(ServiceCounter::QUERIES);
    countService(ServiceCounter::RECORDS_RETURNED, 2);
    countService(ServiceCounter::READS, 3);
    countService(ServiceCounter::BYTES_READ, 4);
    countService(ServiceCounter::WRITES, 5);
    countService(ServiceCounter::BYTES_WRITTEN, 6);
    countService(ServiceCounter::RECORDS_STORED, 7);
    countService(ServiceCounter::WRITERS_LEFT, 8);
    countService(ServiceCounter::REQUESTS_REFUSED, 9);
    const QmTest::AssertionCapture assertions;
    EXPECT_FALSE(TLX_ASSERT(1 == 2));
    EXPECT_EQ(all(), "queries=1 recordsReturned=2 reads=3 bytesRead=4 writes=5 bytesWritten=6 "
                     "recordsStored=7 writersLeft=8 requestsRefused=9 failedAssertions=1 ");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
