// The entries of the lists ALLOW.* as text.

#include "AccessEntry.h"

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using Kind = AccessEntryKind;

TEST(AccessEntryTest, Kinds)
{
    EXPECT_EQ(accessEntryKind("*"), Kind::EVERYBODY);
    EXPECT_EQ(accessEntryKind("own"), Kind::OWN);
    EXPECT_EQ(accessEntryKind("Local"), Kind::LOCAL);
    EXPECT_EQ(accessEntryKind("MASTER"), Kind::MASTER);
    for (const std::string range :
         {"192.0.2.7", "192.0.2.0/24", "2001:db8::/32", "::1", "0.0.0.0/0"})
        EXPECT_EQ(accessEntryKind(range), Kind::RANGE) << range;
    for (const std::string host :
         {"web1", "web1.example.com", "web1.example.com.", "7", "x7.example.com7", "été", "locals"})
        EXPECT_EQ(accessEntryKind(host), host == "7" ? Kind::NONE : Kind::HOST) << host;
}

TEST(AccessEntryTest, WhatCannotBeReadIsNone)
{
    // Resolvers read the numbers among these as addresses.
    for (const std::string text :
         {"",      "**",           "192.0.2.*", "192.0.2.7/24", "192.0.2.0/33", "10.1",
          "127.1", "0x7f000001",   "0x7f.1",    "1.2.3.0x4",    "web1.7",       "192.0.2.256",
          "-rf",   ".web1",        "a/b",       "[::1]",        "a:b",          "web1;web2",
          "!web1", "fe80::1%eth0", "."})
        EXPECT_EQ(accessEntryKind(text), Kind::NONE) << text;
    EXPECT_EQ(accessEntryKind(std::string(255, 'x')), Kind::HOST);
    EXPECT_EQ(accessEntryKind(std::string(256, 'x')), Kind::NONE);
}

TEST(AccessEntryTest, OnlySomeListsTakeOwn)
{
    EXPECT_TRUE(isAccessEntry("own"));
    EXPECT_FALSE(isAccessEntryWithoutOwn("own"));
    EXPECT_TRUE(isAccessEntryWithoutOwn("master"));
    EXPECT_FALSE(isAccessEntryWithoutOwn("10.1"));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
