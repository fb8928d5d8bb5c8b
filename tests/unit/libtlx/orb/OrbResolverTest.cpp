// The names in references: the ORB looks them up through this library, with its limits.

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <omniORB4/CORBA.h>

#include <omniORB4/internal/libcWrapper.h>

#include <tlx/Resolver.h>
#include <tlx/StopNotice.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;
using omni::LibcWrapper;

/// How long a name may take.
constexpr auto LIMIT = 5s;
/// How many names of references may be looked up at the same time.
constexpr int MOST = 32;

struct OrbResolverTest : testing::Test
{
    ~OrbResolverTest() override
    {
        m_hangs = false;
        while (m_hanging > 0)
            std::this_thread::sleep_for(1ms);
        setResolver({});
        withdrawStop();
    }
    /// The addresses, one after the other.
    static std::string addressesOf(const char* host)
    {
        const LibcWrapper::AddrInfo_var found(LibcWrapper::getAddrInfo(host, 14400));
        std::string all;
        for (LibcWrapper::AddrInfo* each = found; each; each = each->next()) {
            all += CORBA::String_var(each->asString()).in();
            all += each->addrFamily() == AF_INET6 ? "/6 " : "/4 ";
            EXPECT_EQ(each->addrFamily(), each->addr()->sa_family);
        }
        return all;
    }
    void hang()
    {
        m_hangs = true;
        setResolver([this](const std::string&) {
            ++m_hanging;
            while (m_hangs)
                std::this_thread::sleep_for(1ms);
            --m_hanging;
            return std::vector<std::string>{"192.0.2.1"};
        });
    }
    std::atomic<bool> m_hangs{false};
    std::atomic<int> m_hanging{0};
};

TEST_F(OrbResolverTest, NumericAddressesAndNames)
{
    EXPECT_EQ(addressesOf("192.0.2.7"), "192.0.2.7/4 ");
    EXPECT_EQ(addressesOf("2001:db8::7"), "2001:db8::7/6 ");
    EXPECT_EQ(addressesOf("0.0.0.0"), "0.0.0.0/4 ");
    setResolver([](const std::string& host) {
        return host == "two" ? std::vector<std::string>{"2001:db8::1", "192.0.2.1"}
                             : std::vector<std::string>{};
    });
    EXPECT_EQ(addressesOf("two"), "2001:db8::1/6 192.0.2.1/4 ");
    EXPECT_EQ(addressesOf("none"), "");
}

TEST_F(OrbResolverTest, WithoutAHostItIsTheAddressToListenOn)
{
    EXPECT_NE(addressesOf(nullptr).find("0.0.0.0/4 "), std::string::npos);
}

TEST_F(OrbResolverTest, AResolverThatHangsEndsAtTheLimit)
{
    hang();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(addressesOf("slow"), "");
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, LIMIT);
    EXPECT_LT(took, LIMIT + 10s);
}

TEST_F(OrbResolverTest, AStopEndsIt)
{
    hang();
    announceStop();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(addressesOf("slow"), "");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, LIMIT);
}

TEST_F(OrbResolverTest, ManyNamesThatHangLeaveRoomForThisProcess)
{
    hang();
    std::vector<std::thread> threads;
    for (int i = 0; i < MOST; ++i)
        threads.emplace_back([] { (void)addressesOf("slow"); });
    while (m_hanging < MOST)
        std::this_thread::sleep_for(1ms);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(addressesOf("one-more"), "");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, LIMIT);
    EXPECT_EQ(m_hanging, MOST) << "it was not even asked for";
    std::thread own([] { EXPECT_EQ(resolveHost("master", 20s).size(), 1u); });
    while (m_hanging <= MOST)
        std::this_thread::sleep_for(1ms);
    m_hangs = false;
    own.join();
    for (std::thread& each : threads)
        each.join();
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
