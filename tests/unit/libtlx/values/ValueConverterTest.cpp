#include <gtest/gtest.h>

#include <limits>

#include <tlx/ValueConverter.h>

using namespace Veltrane::Quillmark::Tlx;

namespace {

constexpr auto LARGEST = std::numeric_limits<std::int64_t>::max();
constexpr auto SMALLEST = std::numeric_limits<std::int64_t>::min();

/// Expects that the text is refused and that the variable keeps its value.
template <class Value>
void expectNoValue(const char* text, const Value& kept)
{
    Value value = kept;
    EXPECT_FALSE(fromText(text, value)) << "\"" << text << "\"";
    EXPECT_EQ(value, kept) << "\"" << text << "\"";
}

template <class Value>
void expectValue(const char* text, const Value& expected)
{
    Value value{};
    EXPECT_TRUE(fromText(text, value)) << "\"" << text << "\"";
    EXPECT_EQ(value, expected) << "\"" << text << "\"";
}

TEST(ValueConverterTest, TimesAsText)
{
    EXPECT_EQ(toText(TlxObjTime()), "0.000000");
    EXPECT_EQ(toText(TlxObjTime(1700000000, 250000)), "1700000000.250000");
    EXPECT_EQ(toText(TlxObjTime(0, 1)), "0.000001");
    EXPECT_EQ(toText(TlxObjTime(-2)), "-2.000000");
    EXPECT_EQ(toText(TlxObjTime(0, -500000)), "-0.500000");
    EXPECT_EQ(toText(TlxObjTime(-1, -500000)), "-1.500000");
    EXPECT_EQ(toText(TlxObjTime::max()), "9223372036854775807.999999");
    EXPECT_EQ(toText(TlxObjTime(SMALLEST)), "-9223372036854775808.000000");
    EXPECT_EQ(toText(TlxObjTime(SMALLEST, 1)), "-9223372036854775807.999999");
}

TEST(ValueConverterTest, EveryTimeReadsBack)
{
    for (const std::int64_t seconds :
         {SMALLEST, SMALLEST + 1, std::int64_t{-1700000000}, std::int64_t{-2}, std::int64_t{-1},
          std::int64_t{0}, std::int64_t{1}, std::int64_t{1700000000}, LARGEST - 1, LARGEST})
        for (const std::int64_t microseconds : {0, 1, 10, 499999, 500000, 999999}) {
            const TlxObjTime time(seconds, microseconds);
            expectValue(toText(time).c_str(), time);
        }
}

TEST(ValueConverterTest, TimesThatOthersWrote)
{
    expectValue("17", TlxObjTime(17));
    expectValue("17.5", TlxObjTime(17, 500000));
    expectValue("0017.05", TlxObjTime(17, 50000));
    expectValue("-0.000000", TlxObjTime());
    expectValue(" \t\r\n17.000001 \n", TlxObjTime(17, 1));
}

TEST(ValueConverterTest, TextsThatAreNoTime)
{
    for (const char* text : {"",
                             " ",
                             "x",
                             "1x",
                             "1.",
                             ".5",
                             "-",
                             "-.5",
                             "1.2345678",
                             "1.x",
                             "1.-5",
                             "1.+5",
                             "+1",
                             "--1",
                             "1 2",
                             "1. 5",
                             "1.5.5",
                             "0x10",
                             "1e3",
                             "1,5",
                             "9223372036854775808",
                             "9223372036854775808.000000",
                             "-9223372036854775808.000001",
                             "-9223372036854775809",
                             "99999999999999999999999999"})
        expectNoValue(text, TlxObjTime(3, 4));
}

TEST(ValueConverterTest, UnsignedNumbers)
{
    expectValue("0", std::uint32_t{0});
    expectValue(" 4294967295\n", std::uint32_t{4294967295u});
    expectValue("007", std::uint32_t{7});
    expectValue("18446744073709551615", std::numeric_limits<std::uint64_t>::max());
    for (const char* text : {"", " ", "-1", "-0", "+1", "1x", "x", "1.0", "0x10", "1 2"}) {
        expectNoValue(text, std::uint32_t{5});
        expectNoValue(text, std::uint64_t{5});
    }
    expectNoValue("4294967296", std::uint32_t{5});
    expectNoValue("18446744073709551616", std::uint64_t{5});
}

TEST(ValueConverterTest, SignedNumbers)
{
    expectValue("-2147483648", std::numeric_limits<std::int32_t>::min());
    expectValue("2147483647", std::numeric_limits<std::int32_t>::max());
    expectValue("\n-5 ", std::int32_t{-5});
    for (const char* text : {"2147483648", "-2147483649", "", "-", "+1", "5-"})
        expectNoValue(text, std::int32_t{-7});
}

TEST(ValueConverterTest, AZeroByteBelongsToTheText)
{
    std::uint32_t value = 5;
    EXPECT_FALSE(fromText(std::string("7\0", 2), value));
    EXPECT_EQ(value, 5u);
}

} // namespace
