// Whether a peer is the host whose name it claims.

#include "OwnNames.h"

#include <atomic>
#include <condition_variable>
#include <future>

#include <gtest/gtest.h>

#include <tlx/HostConfig.h>
#include <tlx/Resolver.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

struct OwnNamesTest : testing::Test
{
    OwnNamesTest()
    {
        HostConfig::instance().readText("CLIENT_NAME = here\nENDPOINT.web9 = 192.0.2.9:14401\n",
                                        "qm.conf");
        setResolver([this](const std::string& host) -> std::vector<std::string> {
            ++asked;
            if (host == "web1")
                return {"192.0.2.7", "2001:db8::7"};
            return {};
        });
    }
    ~OwnNamesTest() override { setResolver({}); }

    bool isOwn(const std::string& name, const std::string& address,
               const std::string& certificate = "")
    {
        return names.isOwn(name, {address, certificate}, interfaces);
    }

    std::atomic<int> asked{0};
    const Addresses interfaces{*NumericAddress::parse("192.0.2.1")};
    OwnNames names;
};

TEST_F(OwnNamesTest, ANameThatResolvesToThePeer)
{
    EXPECT_TRUE(isOwn("web1", "192.0.2.7"));
    EXPECT_TRUE(isOwn("WEB1.", "2001:db8::7"));
    EXPECT_FALSE(isOwn("web1", "192.0.2.8"));
    EXPECT_FALSE(isOwn("web2", "192.0.2.7"));
    EXPECT_FALSE(isOwn("", "192.0.2.7"));
    EXPECT_FALSE(isOwn("web1", ""));
}

TEST_F(OwnNamesTest, ANameThatIsNoHostIsNotResolved)
{
    for (const std::string name : {"web1/disk", "%77eb1", "user@web1", "web1:14400", "*", " web1"})
        EXPECT_FALSE(isOwn(name, "192.0.2.7")) << name;
    EXPECT_EQ(asked, 0);
}

TEST_F(OwnNamesTest, ANumericAddressIsItsOwnName)
{
    EXPECT_TRUE(isOwn("192.0.2.8", "192.0.2.8"));
    EXPECT_FALSE(isOwn("192.0.2.8", "192.0.2.9"));
}

TEST_F(OwnNamesTest, TheConfiguredEndpointOfAHostCounts)
{
    EXPECT_TRUE(isOwn("web9", "192.0.2.9"));
    EXPECT_FALSE(isOwn("web9", "192.0.2.7"));
}

TEST_F(OwnNamesTest, ThisMachineOwnsTheNameOfThisHost)
{
    EXPECT_TRUE(isOwn("Here", "127.0.0.1"));
    EXPECT_TRUE(isOwn("here", "192.0.2.1"));
    EXPECT_FALSE(isOwn("here", "192.0.2.7"));
    EXPECT_FALSE(isOwn("web1", "127.0.0.1"));
}

TEST_F(OwnNamesTest, ACertificatesNameIsThePeersOnlyName)
{
    EXPECT_TRUE(isOwn("Web5", "192.0.2.7", "web5"));
    EXPECT_FALSE(isOwn("web1", "192.0.2.7", "web5")) << "the address is web1's";
    EXPECT_FALSE(isOwn("here", "127.0.0.1", "web5"));
    EXPECT_EQ(asked, 0);
}

TEST_F(OwnNamesTest, AnAnswerIsKeptUntilItIsForgotten)
{
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(isOwn("web1", "192.0.2.7"));
        EXPECT_FALSE(isOwn("web2", "192.0.2.7"));
    }
    EXPECT_EQ(asked, 2);
    names.clear();
    EXPECT_TRUE(isOwn("web1", "192.0.2.7"));
    EXPECT_EQ(asked, 3);
}

TEST_F(OwnNamesTest, ClaimsOfManyNamesLeaveTheGoodAnswersAlone)
{
    EXPECT_TRUE(isOwn("web1", "192.0.2.7"));
    for (std::size_t i = 0; i <= MAX_FOREIGN_NAMES; ++i)
        EXPECT_FALSE(isOwn("x" + std::to_string(i), "192.0.2.66"));
    const int before = asked;
    EXPECT_TRUE(isOwn("web1", "192.0.2.7"));
    EXPECT_EQ(asked, before);
    EXPECT_FALSE(isOwn("x0", "192.0.2.66"));
    EXPECT_EQ(asked, before + 1) << "the oldest answer has gone";
}

TEST_F(OwnNamesTest, APeerHasItsShareOfResolutions)
{
    std::mutex mutex;
    std::condition_variable changed;
    unsigned inside = 0;
    bool open = false;
    setResolver([&](const std::string&) -> std::vector<std::string> {
        std::unique_lock lock(mutex);
        ++inside;
        changed.notify_all();
        changed.wait(lock, [&] { return open; });
        return {"192.0.2.66", "192.0.2.7"};
    });
    std::vector<std::future<bool>> claims;
    for (unsigned i = 0; i < MAX_RESOLUTIONS_OF_A_PEER; ++i)
        claims.push_back(std::async(std::launch::async, [&, i] {
            return isOwn("slow" + std::to_string(i), "192.0.2.66");
        }));
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(20),
                                     [&] { return inside == MAX_RESOLUTIONS_OF_A_PEER; }));
    }
    EXPECT_FALSE(isOwn("one-more", "192.0.2.66")) << "at once";
    auto other = std::async(std::launch::async, [&] { return isOwn("web1", "192.0.2.7"); });
    {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), [&] {
            return inside == MAX_RESOLUTIONS_OF_A_PEER + 1;
        })) << "another peer has a share of its own";
        open = true;
        changed.notify_all();
    }
    for (auto& claim : claims)
        EXPECT_TRUE(claim.get());
    EXPECT_TRUE(other.get());
    EXPECT_TRUE(isOwn("one-more", "192.0.2.66")) << "the refusal was not kept";
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
