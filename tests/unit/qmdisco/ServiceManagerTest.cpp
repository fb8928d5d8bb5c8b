// The messages to the service manager.

#include "ServiceManager.h"

#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestRoot.h"

using namespace Veltrane::Quillmark::Qmdisco;
using namespace std::chrono_literals;
using testing::MatchesRegex;

namespace {

class ServiceManagerTest : public testing::Test
{
  protected:
    ServiceManagerTest()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string path = m_root.path("notify");
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        m_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("cannot bind");
        ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~ServiceManagerTest() override
    {
        ::close(m_socket);
        for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
            ::unsetenv(name);
    }

    std::string told()
    {
        char text[400];
        const ssize_t n = ::recv(m_socket, text, sizeof text, 0);
        return n < 0 ? "nothing" : std::string(text, static_cast<std::size_t>(n));
    }

    QmTest::TestRoot m_root;
    int m_socket = -1;
};

TEST_F(ServiceManagerTest, Ready)
{
    ServiceManager().ready("up");
    EXPECT_EQ("READY=1\nSTATUS=up", told());
}

TEST_F(ServiceManagerTest, Reloading)
{
    ServiceManager().reloading();
    EXPECT_THAT(told(), MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+"));
}

TEST_F(ServiceManagerTest, Stopping)
{
    ServiceManager().stopping("asked for by SIGTERM");
    EXPECT_EQ("STOPPING=1\nSTATUS=asked for by SIGTERM", told());
}

TEST_F(ServiceManagerTest, AStatusIsOneLine)
{
    ServiceManager().failed("a\nREADY=1");
    EXPECT_EQ("STATUS=a READY=1", told());
}

TEST_F(ServiceManagerTest, PingsOnlyWhenSomebodyWaits)
{
    ServiceManager manager;
    EXPECT_EQ(0ms, manager.pingInterval());
    manager.ping();
    EXPECT_EQ("nothing", told());
}

TEST_F(ServiceManagerTest, PingsTwiceInTheWatchdogsTime)
{
    ::setenv("WATCHDOG_USEC", "3000000", 1);
    ::setenv("WATCHDOG_PID", std::to_string(::getpid()).c_str(), 1);
    ServiceManager manager;
    EXPECT_EQ(1500ms, manager.pingInterval());
    manager.ping();
    EXPECT_EQ("WATCHDOG=1", told());
}

TEST(ServiceManager, WithoutAManagerNothingHappens)
{
    ServiceManager manager;
    manager.ready("up");
    manager.ping();
    EXPECT_EQ(0ms, manager.pingInterval());
}

} // namespace
