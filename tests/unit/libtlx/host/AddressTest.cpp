// Numeric addresses and ranges of them.

#include <tlx/Address.h>

#include <algorithm>

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

NumericAddress address(const std::string& text)
{
    const auto parsed = NumericAddress::parse(text);
    EXPECT_TRUE(parsed) << text;
    return parsed.value_or(NumericAddress(NumericAddress::Bytes{}));
}

bool contains(const std::string& range, const std::string& text)
{
    const auto parsed = AddressRange::parse(range);
    EXPECT_TRUE(parsed) << range;
    return parsed && parsed->contains(address(text));
}

TEST(NumericAddressTest, BothKindsAndTheMappedForm)
{
    EXPECT_EQ(address("192.0.2.7"), address("::ffff:192.0.2.7"));
    EXPECT_EQ(address("2001:db8::7"), address("2001:0DB8:0:0::7"));
    EXPECT_NE(address("::192.0.2.7"), address("192.0.2.7")) << "the old compatible form is IPv6";
    EXPECT_EQ(address("fe80::1%eth0"), address("fe80::1"));
    EXPECT_TRUE(address("192.0.2.7").isV4());
    EXPECT_FALSE(address("2001:db8::7").isV4());
}

TEST(NumericAddressTest, OtherTextIsNone)
{
    for (const std::string text : {"", "192.0.2", "192.0.2.256", "192.0.2.07", "192.0.2.7 ", "host",
                                   "2001:db8::7::", ":", "1.2.3.4.5", "0x7f.0.0.1"})
        EXPECT_FALSE(NumericAddress::parse(text)) << text;
    EXPECT_FALSE(NumericAddress::parse(std::string("192.0.2.7\0", 10)));
}

TEST(NumericAddressTest, Loopback)
{
    EXPECT_TRUE(address("127.0.0.1").isLoopback());
    EXPECT_TRUE(address("127.255.255.255").isLoopback());
    EXPECT_TRUE(address("::1").isLoopback());
    EXPECT_TRUE(address("::ffff:127.0.0.2").isLoopback());
    EXPECT_FALSE(address("128.0.0.1").isLoopback());
    EXPECT_FALSE(address("126.255.255.255").isLoopback());
    EXPECT_FALSE(address("::2").isLoopback());
    EXPECT_FALSE(address("::").isLoopback());
    EXPECT_FALSE(address("1::1").isLoopback());
}

TEST(AddressRangeTest, TheEdgesOfRanges)
{
    struct Edges
    {
        const char* range;
        const char* before;
        const char* first;
        const char* last;
        const char* after;
    };
    for (const Edges& edges :
         {Edges{"192.0.2.0/24", "192.0.1.255", "192.0.2.0", "192.0.2.255", "192.0.3.0"},
          Edges{"192.0.2.128/25", "192.0.2.127", "192.0.2.128", "192.0.2.255", "192.0.3.0"},
          Edges{"192.0.2.4/31", "192.0.2.3", "192.0.2.4", "192.0.2.5", "192.0.2.6"},
          Edges{"192.0.2.7/32", "192.0.2.6", "192.0.2.7", "192.0.2.7", "192.0.2.8"},
          Edges{"192.0.2.7", "192.0.2.6", "192.0.2.7", "192.0.2.7", "192.0.2.8"},
          Edges{"10.0.0.0/7", "9.255.255.255", "10.0.0.0", "11.255.255.255", "12.0.0.0"},
          Edges{"2001:db8::/32", "2001:db7:ffff:ffff:ffff:ffff:ffff:ffff",
                "2001:db8::", "2001:db8:ffff:ffff:ffff:ffff:ffff:ffff", "2001:db9::"},
          Edges{"2001:db8::/33",
                "2001:db7:ffff::", "2001:db8::", "2001:db8:7fff:ffff::", "2001:db8:8000::"},
          Edges{"2001:db8::7/128", "2001:db8::6", "2001:db8::7", "2001:db8::7", "2001:db8::8"},
          Edges{"2001:db8::6/127", "2001:db8::5", "2001:db8::6", "2001:db8::7", "2001:db8::8"}}) {
        EXPECT_FALSE(contains(edges.range, edges.before)) << edges.range;
        EXPECT_TRUE(contains(edges.range, edges.first)) << edges.range;
        EXPECT_TRUE(contains(edges.range, edges.last)) << edges.range;
        EXPECT_FALSE(contains(edges.range, edges.after)) << edges.range;
    }
}

TEST(AddressRangeTest, EachKindContainsOnlyItsOwn)
{
    EXPECT_TRUE(contains("0.0.0.0/0", "255.255.255.255"));
    EXPECT_FALSE(contains("0.0.0.0/0", "2001:db8::7"));
    EXPECT_TRUE(contains("::/0", "ffff::"));
    EXPECT_FALSE(contains("::/0", "192.0.2.7"));
    EXPECT_TRUE(contains("192.0.2.0/24", "::ffff:192.0.2.7"));
    EXPECT_TRUE(contains("::ffff:192.0.2.0/120", "192.0.2.7"));
    EXPECT_FALSE(contains("::ffff:192.0.2.0/120", "192.0.3.7"));
}

TEST(AddressRangeTest, OtherTextIsNone)
{
    for (const std::string text :
         {"", "/", "/24", "192.0.2.0/", "192.0.2.0/33", "192.0.2.0/-1", "192.0.2.0/+8",
          "192.0.2.0/ 24", "192.0.2.0/24/24", "192.0.2.0/0x8", "192.0.2/24", "2001:db8::/129",
          "host/24", "192.0.2.0/4294967320", "fe80::1%eth0", "fe80::%eth0/10"})
        EXPECT_FALSE(AddressRange::parse(text)) << text;
}

TEST(AddressRangeTest, BitsBehindTheLengthAreAMistake)
{
    EXPECT_FALSE(AddressRange::parse("192.0.2.7/24"));
    EXPECT_FALSE(AddressRange::parse("192.0.2.1/31"));
    EXPECT_FALSE(AddressRange::parse("2001:db8::1/127"));
    EXPECT_FALSE(AddressRange::parse("::ffff:192.0.2.0/24"));
    EXPECT_TRUE(AddressRange::parse("192.0.2.2/31"));
}

TEST(InterfaceAddressesTest, AreSortedAndHaveTheLoopback)
{
    const std::vector<NumericAddress> all = interfaceAddresses();
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end()));
    EXPECT_TRUE(std::binary_search(all.begin(), all.end(), address("127.0.0.1")));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
