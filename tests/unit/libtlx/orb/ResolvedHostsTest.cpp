// Which hosts this process has looked up, by address.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../../../../libtlx/lib/orb/ResolvedHosts.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(ResolvedHostsTest, KnowsTheHostsOfAnAddress)
{
    ResolvedHosts hosts;
    hosts.note("two", "192.0.2.7");
    hosts.note("one", "192.0.2.7");
    hosts.note("one", "2001:db8::7");
    hosts.note("", "192.0.2.7");
    hosts.note("three", "nonsense");
    EXPECT_THAT(hosts.of("192.0.2.7"), ElementsAre("one", "two"));
    EXPECT_THAT(hosts.of("::ffff:192.0.2.7"), ElementsAre("one", "two"));
    EXPECT_THAT(hosts.of("2001:0db8::7"), ElementsAre("one"));
    EXPECT_THAT(hosts.of("192.0.2.8"), IsEmpty());
    EXPECT_THAT(hosts.of("nonsense"), IsEmpty());
}

TEST(ResolvedHostsTest, TheOldestGoesBeyondTheBound)
{
    ResolvedHosts hosts(3);
    hosts.note("one", "192.0.2.1");
    hosts.note("two", "192.0.2.2");
    hosts.note("three", "192.0.2.3");
    EXPECT_THAT(hosts.of("192.0.2.1"), ElementsAre("one"));
    hosts.note("one", "192.0.2.1"); // young again
    hosts.note("four", "192.0.2.4");
    EXPECT_THAT(hosts.of("192.0.2.1"), ElementsAre("one"));
    EXPECT_THAT(hosts.of("192.0.2.2"), IsEmpty());
    EXPECT_THAT(hosts.of("192.0.2.3"), ElementsAre("three"));
    EXPECT_THAT(hosts.of("192.0.2.4"), ElementsAre("four"));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
