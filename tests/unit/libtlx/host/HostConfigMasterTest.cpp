// The host configuration decides which host is the master.

#include <tlx/HostConfig.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include <tlx/Resolver.h>

#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;

HostConfig& hostConfig()
{
    return HostConfig::instance();
}

struct MasterTest : testing::Test
{
    MasterTest()
    {
        setResolver([](const std::string& host) -> std::vector<std::string> {
            if (host == "alias")
                return {"127.0.0.1"};
            if (host == "far")
                return {"192.0.2.7"};
            return {};
        });
    }
    ~MasterTest() override { setResolver({}); }
    static bool master(const std::string& text)
    {
        hostConfig().readText("CLIENT_NAME = here\n" + text, "qm.conf");
        return hostConfig().isMaster();
    }
};

TEST_F(MasterTest, IsTheHostThatServerNames)
{
    EXPECT_TRUE(master("SERVER = HERE\n"));
    EXPECT_TRUE(master("SERVER = alias\n"));
    EXPECT_TRUE(master("SERVER = 127.0.0.1\n"));
    EXPECT_TRUE(master("SERVER = ::1\n"));
    EXPECT_FALSE(master("SERVER = far\n"));
    EXPECT_FALSE(master("SERVER = unknown\n"));
    EXPECT_FALSE(master("SERVER = 192.0.2.7\n"));
    EXPECT_FALSE(master(""));
}

TEST_F(MasterTest, ThePortDistinguishesSeveralHostsOnOneMachine)
{
    EXPECT_TRUE(master("SERVER = m\nLISTEN = 127.0.0.1:5001\nENDPOINT.m = 127.0.0.1:5001\n"));
    EXPECT_FALSE(master("SERVER = m\nLISTEN = 127.0.0.1:5002\nENDPOINT.m = 127.0.0.1:5001\n"));
}

TEST_F(MasterTest, ThisHostsEndpointMayBeWrittenInSeveralWays)
{
    const std::string endpoint = "SERVER = m\nENDPOINT.m = ";
    EXPECT_TRUE(master(endpoint + "[::1]:5001\nLISTEN = [0:0:0:0:0:0:0:1]:5001\n"));
    EXPECT_TRUE(master(endpoint + "alias:5001\nLISTEN = 127.0.0.1:5001\n"));
    EXPECT_TRUE(master(endpoint + "127.0.0.1:5001\nLISTEN = alias:5001\n"));
    EXPECT_TRUE(master(endpoint + "alias:5001\nLISTEN = 0.0.0.0:5001\n"));
    EXPECT_TRUE(master(endpoint + "alias:5001\nLISTEN = [0::0]:5001\n"));
    EXPECT_TRUE(master(endpoint + "NAT:5001\nLISTEN = 0.0.0.0:5001\nPUBLISH_ADDRESS = nat\n"));
    EXPECT_FALSE(master(endpoint + "far:5001\nLISTEN = 0.0.0.0:5001\n"));
    EXPECT_FALSE(master(endpoint + "unknown:5001\nLISTEN = other:5001\n"));
    EXPECT_FALSE(master(endpoint + "alias:5001\nLISTEN = far:5001\n"));
    EXPECT_FALSE(master(endpoint + "alias:5001\n")) << "the port is another one";
}

TEST_F(MasterTest, ANameWithoutAnAddressIsLoggedOnceAndMakesAClient)
{
    const QmTest::LogCapture log;
    setResolver([](const std::string&) { return std::vector<std::string>(); });
    EXPECT_FALSE(master("SERVER = later\n"));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, LOG_LEVEL_FAILURE);
    EXPECT_EQ(log.lines()[0].operation, "HostConfig::isMaster");
    EXPECT_EQ(log.lines()[0].text, "Cannot resolve 'later', the master's address. To this process "
                                   "the host is a client");

    setResolver([](const std::string&) { return std::vector<std::string>{"127.0.0.1"}; });
    EXPECT_FALSE(hostConfig().isMaster()) << "a running service cannot become the master";
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(master("SERVER = later\n")) << "a new start asks again";
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(MasterTest, AnEndpointWithoutAnAddressIsLogged)
{
    const QmTest::LogCapture log;
    EXPECT_FALSE(master("SERVER = m\nLISTEN = 0.0.0.0:5001\nENDPOINT.m = unknown:5001\n"));
    EXPECT_EQ(log.texts(LOG_LEVEL_FAILURE),
              QmTest::Lines{"Cannot resolve 'unknown', the master's address. To this process the "
                            "host is a client"});
}

TEST_F(MasterTest, AMasterThatHasAnAddressIsNotLogged)
{
    const QmTest::LogCapture log;
    EXPECT_FALSE(master("SERVER = far\n"));
    EXPECT_FALSE(master("SERVER = m\nLISTEN = 0.0.0.0:5001\nENDPOINT.m = far:5001\n"));
    EXPECT_TRUE(master("SERVER = alias\n"));
    EXPECT_FALSE(master(""));
    EXPECT_EQ(log.lines().size(), 0u);
}

/// A resolver that waits for the test before it answers.
class HangingResolver
{
  public:
    HangingResolver()
    {
        setResolver([state = m_state](const std::string&) -> std::vector<std::string> {
            std::unique_lock lock(state->mutex);
            ++state->asked;
            state->changed.notify_all();
            state->changed.wait(lock, [&] { return state->open; });
            return {"127.0.0.1"};
        });
    }
    ~HangingResolver() { letGo(); }
    void letGo()
    {
        std::lock_guard lock(m_state->mutex);
        m_state->open = true;
        m_state->changed.notify_all();
    }
    bool waitUntilAsked(int times)
    {
        std::unique_lock lock(m_state->mutex);
        return m_state->changed.wait_for(lock, 20s, [&] { return m_state->asked == times; });
    }
    int asked()
    {
        std::lock_guard lock(m_state->mutex);
        return m_state->asked;
    }

  private:
    struct State
    {
        std::mutex mutex;
        std::condition_variable changed;
        bool open = false;
        int asked = 0;
    };
    std::shared_ptr<State> m_state = std::make_shared<State>(); // shared with the background thread
};

TEST_F(MasterTest, AResolverThatHangsCostsFiveSecondsOnce)
{
    HangingResolver resolver;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(master("SERVER = m\nLISTEN = own:5001\nENDPOINT.m = other:5001\n"));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 5s);
    EXPECT_LT(took, 9s) << "two names of five seconds each?"; // slack for a busy machine
    EXPECT_TRUE(resolver.waitUntilAsked(2));
    EXPECT_FALSE(hostConfig().isMaster());
    EXPECT_EQ(resolver.asked(), 2) << "what was found out is remembered";
}

TEST_F(MasterTest, OtherThreadsDoNotWaitForTheResolver)
{
    HangingResolver resolver;
    hostConfig().readText("SERVER = m\n", "qm.conf");
    bool answer = false;
    std::thread asking([&answer] { answer = hostConfig().isMaster(); });
    EXPECT_TRUE(resolver.waitUntilAsked(1));
    EXPECT_EQ(hostConfig().getString(ConfigKey::SERVER), "m");
    hostConfig().readText("CLIENT_NAME = here\nSERVER = here\n", "qm.conf");
    EXPECT_TRUE(hostConfig().isMaster());
    resolver.letGo();
    asking.join();
    EXPECT_TRUE(answer);
}

TEST_F(MasterTest, LocalhostStandsForThisHost)
{
    master("SERVER = here\n");
    EXPECT_TRUE(QM_is_master("localhost"));
    EXPECT_TRUE(QM_is_master("Here"));
    EXPECT_FALSE(QM_is_master("other"));
    EXPECT_FALSE(QM_is_master(nullptr));
    master("SERVER = far\n");
    EXPECT_FALSE(QM_is_master("localhost"));
    EXPECT_TRUE(QM_is_master("FAR"));
    master("");
    EXPECT_FALSE(QM_is_master("localhost"));
}

TEST_F(MasterTest, TheBooleanLookupAnswersAsItsCallersExpect)
{
    static constexpr std::array KEYS{DeclaredKey::boolean("REPORT_CLIENT_DISCOVERIES")};
    hostConfig().declare(KEYS);
    bool flag = false;
    master("");
    EXPECT_EQ(QM_get_config_boolean("REPORT_CLIENT_DISCOVERIES", flag), -1);
    EXPECT_EQ(QM_get_config_boolean(nullptr, flag), -1);
    master("REPORT_CLIENT_DISCOVERIES = yes\n");
    EXPECT_EQ(QM_get_config_boolean("REPORT_CLIENT_DISCOVERIES", flag), 0);
    EXPECT_TRUE(flag);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
