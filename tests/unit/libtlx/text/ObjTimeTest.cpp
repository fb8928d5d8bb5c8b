#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <thread>
#include <vector>

#include <tlx/ObjTime.h>

using namespace Veltrane::Quillmark::Tlx;

namespace {

constexpr auto LARGEST = std::numeric_limits<std::int64_t>::max();
constexpr auto SMALLEST = std::numeric_limits<std::int64_t>::min();

void expectTime(const TlxObjTime& time, std::int64_t seconds, std::int32_t microseconds)
{
    EXPECT_EQ(time.seconds(), seconds);
    EXPECT_EQ(time.microseconds(), microseconds);
}

TEST(ObjTimeTest, IsZeroByDefault)
{
    EXPECT_TRUE(TlxObjTime().isZero());
    EXPECT_TRUE(TlxObjTime(0).isZero());
    EXPECT_FALSE(TlxObjTime(1).isZero());
    EXPECT_FALSE(TlxObjTime(0, 1).isZero());
}

TEST(ObjTimeTest, MicrosecondsAreAlwaysWithinASecond)
{
    expectTime(TlxObjTime(1, 999999), 1, 999999);
    expectTime(TlxObjTime(1, 1000000), 2, 0);
    expectTime(TlxObjTime(1, 2500000), 3, 500000);
    expectTime(TlxObjTime(0, -1), -1, 999999);
    expectTime(TlxObjTime(-1, -1500000), -3, 500000);
    expectTime(TlxObjTime(1, -1000000), 0, 0);
}

TEST(ObjTimeTest, MakingOneSaturates)
{
    EXPECT_EQ(TlxObjTime(LARGEST, 1000000), TlxObjTime::max());
    EXPECT_EQ(TlxObjTime(LARGEST, LARGEST), TlxObjTime::max());
    expectTime(TlxObjTime(SMALLEST, -1), SMALLEST, 0);
    expectTime(TlxObjTime(SMALLEST, SMALLEST), SMALLEST, 0);
    expectTime(TlxObjTime(LARGEST, 999999), LARGEST, 999999);
    expectTime(TlxObjTime(LARGEST, -1), LARGEST - 1, 999999);
    expectTime(TlxObjTime(SMALLEST, 1), SMALLEST, 1);
}

TEST(ObjTimeTest, UnsignedSecondsSaturate)
{
    expectTime(TlxObjTime::fromUnsignedSeconds(0), 0, 0);
    expectTime(TlxObjTime::fromUnsignedSeconds(14400), 14400, 0);
    expectTime(TlxObjTime::fromUnsignedSeconds(std::uint64_t{LARGEST}), LARGEST, 0);
    EXPECT_EQ(TlxObjTime::fromUnsignedSeconds(std::uint64_t{LARGEST} + 1), TlxObjTime::max());
    EXPECT_EQ(TlxObjTime::fromUnsignedSeconds(std::numeric_limits<std::uint64_t>::max()),
              TlxObjTime::max());
}

TEST(ObjTimeTest, Sums)
{
    expectTime(TlxObjTime(1, 600000) + TlxObjTime(2, 500000), 4, 100000);
    expectTime(TlxObjTime(-1, 500000) + TlxObjTime(0, 500000), 0, 0);
    expectTime(TlxObjTime(5) + TlxObjTime(), 5, 0);
}

TEST(ObjTimeTest, SumsSaturateAtBothEnds)
{
    EXPECT_EQ(TlxObjTime::max() + TlxObjTime(0, 1), TlxObjTime::max());
    EXPECT_EQ(TlxObjTime(0, 1) + TlxObjTime::max(), TlxObjTime::max());
    EXPECT_EQ(TlxObjTime::max() + TlxObjTime::max(), TlxObjTime::max());
    EXPECT_EQ(TlxObjTime(LARGEST) + TlxObjTime(1), TlxObjTime::max());
    EXPECT_EQ(TlxObjTime(LARGEST - 1, 600000) + TlxObjTime(1, 400000), TlxObjTime::max());
    expectTime(TlxObjTime(SMALLEST) + TlxObjTime(-1), SMALLEST, 0);
    expectTime(TlxObjTime(SMALLEST) + TlxObjTime(SMALLEST), SMALLEST, 0);
}

TEST(ObjTimeTest, ACarryDoesNotSaturateTooEarly)
{
    expectTime(TlxObjTime(LARGEST, 999999) + TlxObjTime(-1, 500000), LARGEST, 499999);
    expectTime(TlxObjTime(SMALLEST, 999999) + TlxObjTime(-1, 999999), SMALLEST, 999998);
    expectTime(TlxObjTime(LARGEST, 999999) + TlxObjTime(SMALLEST, 1), 0, 0);
}

TEST(ObjTimeTest, Order)
{
    EXPECT_LT(TlxObjTime(1, 999999), TlxObjTime(2));
    EXPECT_LT(TlxObjTime(-1, 500000), TlxObjTime(0));
    EXPECT_LT(TlxObjTime(2), TlxObjTime(2, 1));
    EXPECT_LT(TlxObjTime(LARGEST), TlxObjTime::max());
    EXPECT_EQ(TlxObjTime(2, 1), TlxObjTime(1, 1000001));
}

TEST(ObjTimeTest, TheSystemsClockUnlessReplaced)
{
    const TlxObjTime year2020(1577836800);
    EXPECT_GT(TlxObjTime::now(), year2020);
    TlxObjTime::setClock([] { return TlxObjTime(17, 4); });
    EXPECT_EQ(TlxObjTime::now(), TlxObjTime(17, 4));
    TlxObjTime::setClock({});
    EXPECT_GT(TlxObjTime::now(), year2020);
}

TEST(ObjTimeTest, AClockMayBeReplacedWhileOthersReadIt)
{
    TlxObjTime::setClock([] { return TlxObjTime(1); });
    std::vector<std::thread> readers;
    std::atomic<int> wrong{0};
    for (int i = 0; i < 4; ++i)
        readers.emplace_back([&wrong] {
            for (int round = 0; round < 2000; ++round) {
                const TlxObjTime time = TlxObjTime::now();
                if (time != TlxObjTime(1) && time != TlxObjTime(2))
                    ++wrong;
            }
        });
    for (int round = 0; round < 500; ++round)
        TlxObjTime::setClock([round] { return TlxObjTime(1 + round % 2); });
    for (std::thread& reader : readers)
        reader.join();
    TlxObjTime::setClock({});
    EXPECT_EQ(wrong, 0);
}

} // namespace
