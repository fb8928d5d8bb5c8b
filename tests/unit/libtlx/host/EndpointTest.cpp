// Hosts and endpoints as text.

#include <tlx/Endpoint.h>

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

TEST(EndpointTest, IsAnAddressAndAPort)
{
    EXPECT_EQ(parseEndpoint("backup1.example.com:1"), (Endpoint{"backup1.example.com", 1}));
    EXPECT_EQ(parseEndpoint("192.0.2.7:65535"), (Endpoint{"192.0.2.7", 65535}));
    EXPECT_EQ(parseEndpoint("[2001:db8::1]:14400"), (Endpoint{"2001:db8::1", 14400}));
    EXPECT_EQ(toText(Endpoint{"2001:db8::1", 14400}), "[2001:db8::1]:14400");
    EXPECT_EQ(toText(Endpoint{"a", 0}), "a:0");
}

TEST(EndpointTest, AnythingElseIsRefused)
{
    for (const char* text : {"", ":", "a", "a:", ":1", "a:x", "a:65536", "a:-1", "a: 1", "a b:1",
                             "2001:db8::1:1", "[]:1", "[a]:1", "[::1:1", "1.2.3:4", "-a:1", ".a:1"})
        EXPECT_FALSE(parseEndpoint(text)) << text;
}

TEST(EndpointTest, ANulByteEndsNoAddress)
{
    EXPECT_FALSE(parseEndpoint(std::string("[::1\0x]:1", 10)));
    EXPECT_FALSE(parseEndpoint(std::string("a\0:1", 4)));
    EXPECT_FALSE(parseEndpoint(std::string("a:1\0", 4)));
}

TEST(EndpointTest, AHostNameHasALimit)
{
    const std::string longest(255, 'a');
    EXPECT_EQ(parseEndpoint(longest + ":1"), (Endpoint{longest, 1}));
    EXPECT_FALSE(parseEndpoint(longest + "a:1"));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
