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
        m_state->hangs = false;
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
        m_state->hangs = true;
        setResolver([state = m_state](const std::string&) {
            ++state->hanging;
            while (state->hangs)
                std::this_thread::sleep_for(1ms);
            --state->hanging;
            return std::vector<std::string>{"192.0.2.1"};
        });
    }
    /// A thread may begin to resolve when its test is over.
    struct State
    {
        std::atomic<bool> hangs{false};
        std::atomic<int> hanging{0};
    };
    const std::shared_ptr<State> m_state = std::make_shared<State>();
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
    while (m_state->hanging < MOST)
        std::this_thread::sleep_for(1ms);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(addressesOf("one-more"), "");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, LIMIT);
    EXPECT_EQ(m_state->hanging, MOST) << "it was not even asked for";
    std::thread own([] { EXPECT_EQ(resolveHost("master", 20s).size(), 1u); });
    while (m_state->hanging <= MOST)
        std::this_thread::sleep_for(1ms);
    m_state->hangs = false;
    own.join();
    for (std::thread& each : threads)
        each.join();
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
