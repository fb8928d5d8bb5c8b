// Whom a list of ALLOW.* admits.

#include "AccessList.h"

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

Addresses addresses(const std::vector<std::string>& texts)
{
    Addresses result;
    for (const std::string& text : texts)
        result.push_back(*NumericAddress::parse(text));
    std::sort(result.begin(), result.end());
    return result;
}

struct AccessListTest : testing::Test
{
    AccessList list(const std::vector<std::string>& entries) const
    {
        return AccessList("ALLOW.test", entries, known);
    }
    /// Whether the entries admit a peer without a certificate.
    bool admits(const std::vector<std::string>& entries, const std::string& address) const
    {
        return list(entries).admits({address, ""});
    }

    KnownAddresses known{.local = addresses({"192.0.2.1", "2001:db8::1"}),
                         .hosts = {{"web1", addresses({"192.0.2.7", "2001:db8::7"})},
                                   {"backup1", addresses({"192.0.2.9"})}},
                         .master = "Backup1."};
};

TEST_F(AccessListTest, NobodyAndEverybody)
{
    EXPECT_FALSE(admits({}, "127.0.0.1"));
    EXPECT_FALSE(AccessList().admits({"127.0.0.1", "web1"}));
    EXPECT_TRUE(admits({"*"}, "198.51.100.1"));
    EXPECT_TRUE(admits({"web1", "*"}, "no address")) << "not even an address is needed";
    EXPECT_FALSE(admits({"own"}, "127.0.0.1"));
    EXPECT_TRUE(list({"own"}).admitsOwners());
    EXPECT_FALSE(list({"*", "local", "master"}).admitsOwners());
}

TEST_F(AccessListTest, LocalIsTheLoopbackAndTheInterfaces)
{
    for (const char* local : {"127.0.0.1", "127.9.9.9", "::1", "192.0.2.1", "2001:db8::1"})
        EXPECT_TRUE(admits({"local"}, local)) << local;
    for (const char* other : {"192.0.2.2", "2001:db8::2", "128.0.0.1", "", "web1"})
        EXPECT_FALSE(admits({"local"}, other)) << other;
}

TEST_F(AccessListTest, TheMasterIsTheHostThatServerNames)
{
    EXPECT_TRUE(admits({"master"}, "192.0.2.9"));
    EXPECT_FALSE(admits({"master"}, "192.0.2.7"));
    EXPECT_FALSE(admits({"master"}, "127.0.0.1"));
    known.master = "";
    EXPECT_FALSE(admits({"master"}, "192.0.2.9"));
    EXPECT_FALSE(list({"master"}).admits({"192.0.2.9", "backup1"}));
    known.hosts.clear();
    known.master = "backup1";
    EXPECT_FALSE(admits({"master"}, "192.0.2.9")) << "it has not resolved";
}

TEST_F(AccessListTest, AddressesAndRanges)
{
    EXPECT_TRUE(admits({"198.51.100.0/24", "192.0.2.8"}, "192.0.2.8"));
    EXPECT_TRUE(admits({"198.51.100.0/24", "192.0.2.8"}, "198.51.100.255"));
    EXPECT_FALSE(admits({"198.51.100.0/24", "192.0.2.8"}, "198.51.101.0"));
    EXPECT_TRUE(admits({"2001:db8::/32"}, "2001:db8:ffff::1"));
    EXPECT_FALSE(admits({"2001:db8::/32"}, "2001:db9::"));
    EXPECT_TRUE(admits({"192.0.2.8"}, "::ffff:192.0.2.8"));
    EXPECT_TRUE(admits({"fe80::/10"}, "fe80::1%eth0"));
}

TEST_F(AccessListTest, AHostIsItsAddressesWithoutACertificate)
{
    EXPECT_TRUE(admits({"WEB1"}, "192.0.2.7"));
    EXPECT_TRUE(admits({"web1."}, "2001:db8::7"));
    EXPECT_FALSE(admits({"web1"}, "192.0.2.9"));
    EXPECT_FALSE(admits({"web2"}, "192.0.2.7"));
    EXPECT_TRUE(admits({"web1", "backup1"}, "192.0.2.9"));
}

TEST_F(AccessListTest, WithACertificateAHostIsTheNameInIt)
{
    EXPECT_TRUE(list({"web1"}).admits({"198.51.100.1", "Web1"}));
    EXPECT_TRUE(list({"web1"}).admits({"198.51.100.1", "web1."}));
    EXPECT_FALSE(list({"web1"}).admits({"198.51.100.1", "web11"}));
    EXPECT_FALSE(list({"web1"}).admits({"198.51.100.1", "web"}));
    EXPECT_FALSE(list({"web1"}).admits({"192.0.2.7", "web2"})) << "the address of web1";
    EXPECT_TRUE(list({"master"}).admits({"198.51.100.1", "BACKUP1"}));
    EXPECT_FALSE(list({"master"}).admits({"192.0.2.9", "web1"})) << "the address of the master";
}

TEST_F(AccessListTest, WithACertificateAddressesStillCompareWithTheAddress)
{
    EXPECT_TRUE(list({"192.0.2.0/24"}).admits({"192.0.2.7", "web2"}));
    EXPECT_FALSE(list({"192.0.2.0/24"}).admits({"198.51.100.1", "192.0.2.7"}));
    EXPECT_TRUE(list({"local"}).admits({"127.0.0.1", "web2"}));
    EXPECT_FALSE(list({"local"}).admits({"192.0.2.7", "local"})) << "a word is no name";
    EXPECT_FALSE(list({"master"}).admits({"192.0.2.7", "master"}));
}

TEST_F(AccessListTest, AnEntryThatCannotBeReadAdmitsNobody)
{
    EXPECT_FALSE(admits({"192.0.2.7/24"}, "192.0.2.7"));
    EXPECT_FALSE(list({"10.1"}).admits({"10.0.0.1", "10.1"}));
}

TEST_F(AccessListTest, Text)
{
    EXPECT_EQ(list({"local", "master"}).text(), "ALLOW.test = local, master");
    EXPECT_EQ(list({}).text(), "ALLOW.test = nobody");
    const std::vector<std::string> many(100, "192.0.2.7");
    const std::string text = list(many).text();
    EXPECT_LT(text.size(), 240u);
    EXPECT_TRUE(text.ends_with("192.0.2.7, ...")) << text;
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
