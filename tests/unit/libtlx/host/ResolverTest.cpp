// Name resolution within a time limit.

#include <tlx/Resolver.h>
#include <tlx/StopNotice.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;
using Addresses = std::vector<std::string>;

/// A resolver that waits for the test before it answers.
class Hanging
{
  public:
    Hanging()
    {
        setResolver([this](const std::string&) -> Addresses {
            std::unique_lock lock(m_mutex);
            ++m_inside;
            m_changed.notify_all();
            m_changed.wait(lock, [this] { return m_open; });
            --m_inside;
            m_changed.notify_all();
            return {"192.0.2.7"};
        });
    }
    ~Hanging()
    {
        setResolver({});
        std::unique_lock lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_inside == 0; });
    }
    bool waitFor(int inside)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, 20s, [&] { return m_inside == inside; });
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
    int m_inside = 0;
};

TEST(ResolverTest, NumericAddressesNeverAskTheResolver)
{
    setResolver([](const std::string&) -> Addresses { return {"192.0.2.99"}; });
    EXPECT_EQ(resolveHost("192.0.2.7", 0ms), Addresses{"192.0.2.7"});
    EXPECT_EQ(resolveHost("::1", 0ms), Addresses{"::1"});
    setResolver({});
}

TEST(ResolverTest, NamesAreWhatTheResolverAnswers)
{
    setResolver([](const std::string& host) -> Addresses {
        return host == "known" ? Addresses{"192.0.2.7", "2001:db8::1"} : Addresses{};
    });
    EXPECT_EQ(resolveHost("known", 20s), (Addresses{"192.0.2.7", "2001:db8::1"}));
    EXPECT_EQ(resolveHost("unknown", 20s), Addresses{});
    setResolver({});
}

TEST(ResolverTest, WhatIsNoNameHasNoAddress)
{
    setResolver([](const std::string&) -> Addresses { return {"192.0.2.7"}; });
    EXPECT_EQ(resolveHost("", 20s), Addresses{});
    EXPECT_EQ(resolveHost(std::string("a\0b", 3), 20s), Addresses{});
    setResolver({});
}

TEST(ResolverTest, AResolverThatThrowsHasNoAddress)
{
    setResolver([](const std::string&) -> Addresses { throw std::runtime_error("broken"); });
    EXPECT_EQ(resolveHost("name", 20s), Addresses{});
    setResolver({});
}

TEST(ResolverTest, AResolverThatHangsCostsNoMoreThanTheLimit)
{
    Hanging resolver;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(resolveHost("name", 100ms), Addresses{});
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 100ms);
    EXPECT_LT(took, 10s); // slack for a busy machine
    EXPECT_TRUE(resolver.waitFor(1));
}

TEST(ResolverTest, AStopEndsTheWait)
{
    Hanging resolver;
    std::thread stop([&resolver] {
        EXPECT_TRUE(resolver.waitFor(1));
        announceStop();
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(resolveHost("name", 60s), Addresses{});
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s); // slack for a busy machine
    stop.join();
    EXPECT_EQ(resolveHost("192.0.2.7", 60s), Addresses{"192.0.2.7"}) << "this needs no wait";
    withdrawStop();
}

TEST(ResolverTest, NoMoreThanSoManyHangAtATime)
{
    Hanging resolver;
    for (int i = 0; i < 128; ++i)
        EXPECT_EQ(resolveHost("name", 0ms), Addresses{});
    EXPECT_TRUE(resolver.waitFor(128));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(resolveHost("name", 60s), Addresses{});
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s) << "the next one waited";
}

TEST(ResolverTest, AnAnswerFreesItsThread)
{
    setResolver([](const std::string&) -> Addresses { return {"192.0.2.7"}; });
    // Many more names than may wait at a time. One thread may still end while the next one asks.
    for (int i = 0; i < 200; ++i) {
        Addresses found;
        const auto giveUp = std::chrono::steady_clock::now() + 20s;
        while (found.empty() && std::chrono::steady_clock::now() < giveUp)
            found = resolveHost("name", 20s);
        ASSERT_EQ(found, Addresses{"192.0.2.7"});
    }
    setResolver({});
}

TEST(ResolverTest, AnyLimitIsOne)
{
    setResolver([](const std::string&) -> Addresses { return {"192.0.2.7"}; });
    EXPECT_EQ(resolveHost("name", std::chrono::milliseconds::max()), Addresses{"192.0.2.7"});
    setResolver({});
    Hanging resolver;
    EXPECT_EQ(resolveHost("name", -5s), Addresses{});
    EXPECT_TRUE(resolver.waitFor(1));
    EXPECT_EQ(resolveHost("name", std::chrono::milliseconds::min()), Addresses{});
    EXPECT_TRUE(resolver.waitFor(2));
}

TEST(ResolverTest, NumericAddressesComeBackInTheirUsualForm)
{
    EXPECT_EQ(resolveHost("2001:DB8:0:0:0:0:0:1", 0ms), Addresses{"2001:db8::1"});
    EXPECT_EQ(resolveHost("127.0.0.1", -1s), Addresses{"127.0.0.1"});
}

TEST(ResolverTest, TheAddressesOfThisMachinesInterfacesAreLocal)
{
    ifaddrs* interfaces = nullptr;
    ASSERT_EQ(::getifaddrs(&interfaces), 0);
    for (const ifaddrs* each = interfaces; each; each = each->ifa_next) {
        if (!each->ifa_addr)
            continue;
        const auto family = each->ifa_addr->sa_family;
        if (family != AF_INET && family != AF_INET6)
            continue;
        char text[NI_MAXHOST] = "";
        // A link-local address has its interface after "%".
        ASSERT_EQ(::getnameinfo(each->ifa_addr,
                                family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6),
                                text, sizeof text, nullptr, 0, NI_NUMERICHOST),
                  0);
        EXPECT_TRUE(isLocalAddress(text)) << text;
        if (family == AF_INET) {
            EXPECT_TRUE(isLocalAddress(std::string("::ffff:") + text)) << text;
        }
    }
    ::freeifaddrs(interfaces);
}

TEST(ResolverTest, LoopbackAddressesAreLocal)
{
    EXPECT_TRUE(isLocalAddress("127.0.0.1"));
    EXPECT_TRUE(isLocalAddress("127.1.2.3"));
    EXPECT_TRUE(isLocalAddress("::1"));
    EXPECT_TRUE(isLocalAddress("::ffff:127.0.0.1"));
    EXPECT_FALSE(isLocalAddress("192.0.2.7"));
    EXPECT_FALSE(isLocalAddress("2001:db8::1"));
    EXPECT_FALSE(isLocalAddress("0.0.0.0"));
    EXPECT_FALSE(isLocalAddress("::"));
    EXPECT_FALSE(isLocalAddress("localhost"));
    EXPECT_FALSE(isLocalAddress(std::string("127.0.0.1\0x", 11)));
    EXPECT_FALSE(isLocalAddress(""));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
