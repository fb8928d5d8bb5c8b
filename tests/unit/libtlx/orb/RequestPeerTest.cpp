// Who sent a request: the address in a connection's name, and what a thread knows of its peer.

#include <tlx/RequestPeer.h>

#include <thread>

#include <gtest/gtest.h>

#include "../../../../libtlx/lib/orb/RequestPeerState.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

TEST(RequestPeerTest, AddressOfAConnection)
{
    EXPECT_EQ(addressOfConnection("giop:tcp:192.0.2.7:14400"), "192.0.2.7");
    EXPECT_EQ(addressOfConnection("giop:ssl:192.0.2.7:1"), "192.0.2.7");
    EXPECT_EQ(addressOfConnection("giop:tcp:[2001:db8::7]:14400"), "2001:db8::7");
    EXPECT_EQ(addressOfConnection("giop:tcp:[::ffff:192.0.2.7]:14400"), "192.0.2.7");
    EXPECT_EQ(addressOfConnection("giop:tcp:[::ffff:1]:14400"), "::ffff:1") << "IPv6 of its own";
    EXPECT_EQ(addressOfConnection("giop:unix:/run/x"), "giop:unix:/run/x");
    EXPECT_EQ(addressOfConnection("giop:tcp:"), "giop:tcp:");
    EXPECT_EQ(addressOfConnection(""), "");
}

TEST(RequestPeerTest, AnIPv6NetworkIsOnePeer)
{
    EXPECT_EQ(peerOfAddress("2001:db8:0:1::7"), "2001:db8:0:1::/64");
    EXPECT_EQ(peerOfAddress("::1"), "::/64");
    EXPECT_EQ(peerOfAddress("192.0.2.7"), "192.0.2.7");
}

TEST(RequestPeerTest, TheCertificateNameIdentifiesBeforeTheAddress)
{
    EXPECT_EQ((RequestPeer{"192.0.2.7", ""}.identity()), "192.0.2.7");
    EXPECT_EQ((RequestPeer{"192.0.2.7", "web1"}.identity()), "web1");
}

TEST(RequestPeerTest, EachThreadKnowsThePeerOfItsOwnRequest)
{
    EXPECT_EQ(requestPeer(), nullptr);
    const RequestPeerMark outer({"192.0.2.7", ""});
    {
        const RequestPeerMark inner({"192.0.2.8", ""});
        EXPECT_EQ(requestPeer()->address, "192.0.2.8");
    }
    EXPECT_EQ(requestPeer()->address, "192.0.2.7");
    std::thread([] {
        EXPECT_EQ(requestPeer(), nullptr);
        EXPECT_TRUE(admitRequest({"192.0.2.9", "web2"}, "x")) << "no check admits everything";
        EXPECT_EQ(requestPeer()->address, "192.0.2.9");
    }).join();
    EXPECT_EQ(requestPeer()->address, "192.0.2.7");
}

TEST(RequestPeerTest, TheCheckDecides)
{
    setRequestCheck([](const ArrivingRequest& request) {
        return request.peer.identity() == "web2" && std::string("terminate") == request.operation;
    });
    std::thread([] {
        EXPECT_TRUE(admitRequest({"192.0.2.9", "web2"}, "terminate"));
        EXPECT_FALSE(admitRequest({"192.0.2.9", "web2"}, "close"));
        EXPECT_FALSE(admitRequest({"192.0.2.9", "web3"}, "terminate"));
        EXPECT_EQ(requestPeer()->certificateName, "web3") << "known even if it was refused";
    }).join();
    setRequestCheck(nullptr);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
