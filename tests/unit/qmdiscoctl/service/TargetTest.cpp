// The service that a command talks to.

#include "Target.h"

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Qmdiscoctl {
namespace {

TEST(CtlTargetTest, TheServiceIsTheNamedOneTheMastersOrThisHosts)
{
    Tlx::HostConfig& config = Tlx::HostConfig::instance();
    StatusDocument none;
    config.readText("CLIENT_NAME = here\n", "qm.conf");
    Target target = findTarget("", config, none);
    EXPECT_EQ(target.host, "here");
    EXPECT_TRUE(target.local);
    EXPECT_EQ(target.endpoint, (Tlx::Endpoint{"127.0.0.1", 14400}));

    config.readText("CLIENT_NAME = here\nSERVER = 192.0.2.7\n", "qm.conf");
    target = findTarget("", config, none);
    EXPECT_EQ(target.host, "192.0.2.7");
    EXPECT_FALSE(target.local);
    EXPECT_EQ(target.endpoint, (Tlx::Endpoint{"192.0.2.7", 14400}));

    target = findTarget("other:7", config, none);
    EXPECT_EQ(target.endpoint, (Tlx::Endpoint{"other", 7}));

    StatusDocument running;
    running.found = true;
    running.members = {{"endpoint", "127.0.0.1:5000"}};
    target = findTarget("localhost", config, running);
    EXPECT_TRUE(target.local);
    EXPECT_EQ(target.endpoint, (Tlx::Endpoint{"127.0.0.1", 5000}));
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
