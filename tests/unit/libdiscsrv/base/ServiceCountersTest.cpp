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
    EXPECT_EQ(
        all(),
        "queries=0 recordsReturned=0 reads=0 bytesRead=0 writes=0 bytesWritten=0 "
        "recordsStored=0 writersLeft=0 requestsRefused=0 iteratorsOpen=0 iteratorsHighest=0 "
        "iteratorsGivenUp=0 iteratorsRefused=0 writersOpen=0 writersHighest=0 "
        "writersGivenUp=0 writersRefused=0 writersCrowdedOut=0 pulledBytes=0 pulledBytesHighest=0 "
        "pullsRefused=0 pullsTurnedAway=0 explorersGivenUp=0 foreignUses=0 failedAssertions=0 ");
    countService(ServiceCounter::QUERIES);
    countService(ServiceCounter::RECORDS_RETURNED, 2);
    countService(ServiceCounter::READS, 3);
    countService(ServiceCounter::BYTES_READ, 4);
    countService(ServiceCounter::WRITES, 5);
    countService(ServiceCounter::BYTES_WRITTEN, 6);
    countService(ServiceCounter::RECORDS_STORED, 7);
    countService(ServiceCounter::WRITERS_LEFT, 8);
    countService(ServiceCounter::REQUESTS_REFUSED, 21);
    setService(ServiceCounter::ITERATORS_OPEN, 9);
    raiseService(ServiceCounter::ITERATORS_HIGHEST, 10);
    countService(ServiceCounter::ITERATORS_GIVEN_UP, 11);
    countService(ServiceCounter::ITERATORS_REFUSED, 12);
    setService(ServiceCounter::WRITERS_OPEN, 13);
    raiseService(ServiceCounter::WRITERS_HIGHEST, 14);
    countService(ServiceCounter::WRITERS_GIVEN_UP, 15);
    countService(ServiceCounter::WRITERS_REFUSED, 16);
    countService(ServiceCounter::WRITERS_CROWDED_OUT, 22);
    setService(ServiceCounter::PULLED_BYTES, 17);
    raiseService(ServiceCounter::PULLED_BYTES_HIGHEST, 18);
    countService(ServiceCounter::PULLS_REFUSED, 19);
    countService(ServiceCounter::EXPLORERS_GIVEN_UP, 23);
    countService(ServiceCounter::PULLS_TURNED_AWAY, 24);
    countService(ServiceCounter::FOREIGN_USES, 20);
    const QmTest::AssertionCapture assertions;
    EXPECT_FALSE(TLX_ASSERT(1 == 2));
    EXPECT_EQ(
        all(),
        "queries=1 recordsReturned=2 reads=3 bytesRead=4 writes=5 bytesWritten=6 "
        "recordsStored=7 writersLeft=8 requestsRefused=21 iteratorsOpen=9 iteratorsHighest=10 "
        "iteratorsGivenUp=11 iteratorsRefused=12 writersOpen=13 writersHighest=14 "
        "writersGivenUp=15 writersRefused=16 writersCrowdedOut=22 pulledBytes=17 "
        "pulledBytesHighest=18 "
        "pullsRefused=19 pullsTurnedAway=24 explorersGivenUp=23 foreignUses=20 "
        "failedAssertions=1 ");
}

TEST(ServiceCountersTest, AValueOfNowFallsAndTheHighestStays)
{
    for (const unsigned long long value : {5, 7, 6}) {
        setService(ServiceCounter::WRITERS_OPEN, value);
        raiseService(ServiceCounter::WRITERS_HIGHEST, value);
    }
    EXPECT_NE(all().find("writersOpen=6 writersHighest=7 "), std::string::npos);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
