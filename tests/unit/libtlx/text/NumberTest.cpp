// Reads numbers from text: only the whole text, and only within the type's range.

#include <tlx/Number.h>

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

TEST(NumberTest, TheRangeOfATypeIsTakenToItsEnds)
{
    EXPECT_EQ(0u, parseNumber<std::uint16_t>("0"));
    EXPECT_EQ(65535u, parseNumber<std::uint16_t>("65535"));
    EXPECT_EQ(std::nullopt, parseNumber<std::uint16_t>("65536"));
    EXPECT_EQ(18446744073709551615u, parseNumber<std::uint64_t>("18446744073709551615"));
    EXPECT_EQ(std::nullopt, parseNumber<std::uint64_t>("18446744073709551616"));
    EXPECT_EQ(-2147483647 - 1, parseNumber<std::int32_t>("-2147483648"));
    EXPECT_EQ(std::nullopt, parseNumber<std::int32_t>("-2147483649"));
    EXPECT_EQ(2147483647, parseNumber<std::int32_t>("2147483647"));
    EXPECT_EQ(std::nullopt, parseNumber<std::int32_t>("2147483648"));
}

TEST(NumberTest, LeadingZerosAreDigits)
{
    EXPECT_EQ(7u, parseNumber<std::uint32_t>("007"));
    EXPECT_EQ(7u, parseNumber<std::uint16_t>(std::string(100, '0').append("7")));
    EXPECT_EQ(0, parseNumber<std::int32_t>("-0"));
}

TEST(NumberTest, AnyOtherTextIsNoNumber)
{
    for (const char* text : {"", " ", "-", "+1", " 1", "1 ", "1x", "x1", "0x1", "1.0", "1e3", "1,0",
                             "--1", "\xD9\xA1", "1\n"}) {
        EXPECT_EQ(std::nullopt, parseNumber<std::uint64_t>(text)) << text;
        EXPECT_EQ(std::nullopt, parseNumber<std::int32_t>(text)) << text;
    }
    EXPECT_EQ(std::nullopt, parseNumber<std::uint64_t>("-1")) << "an unsigned type has no sign";
    EXPECT_EQ(std::nullopt, parseNumber<std::uint64_t>(std::string_view("1\0", 2)));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
