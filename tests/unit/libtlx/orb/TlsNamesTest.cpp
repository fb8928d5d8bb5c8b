// The names in a certificate, and which hosts they fit.

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "../../../../libtlx/lib/orb/TlsNames.h"
#include "TlsFixture.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using QmTest::Authority;
using QmTest::Certificate;
using QmTest::CertificateText;

struct TlsNamesTest : testing::Test
{
    /// A certificate with these names.
    std::shared_ptr<X509> made(const std::string& commonName, const std::string& names) const
    {
        const Certificate text =
            authority.issue(CertificateText{.commonName = commonName, .names = names});
        BIO* const bio = BIO_new_mem_buf(text.certificate.data(), -1);
        const std::shared_ptr<X509> certificate(PEM_read_bio_X509(bio, nullptr, nullptr, nullptr),
                                                &X509_free);
        BIO_free(bio);
        return certificate;
    }
    std::string name(const std::string& commonName, const std::string& names) const
    {
        return nameOf(made(commonName, names).get());
    }
    bool fits(const std::string& names, const std::string& host) const
    {
        return isNamed(made("common", names).get(), host);
    }

    const Authority authority;
};

TEST_F(TlsNamesTest, TheFirstDnsNameIsTheName)
{
    EXPECT_EQ(name("common", "DNS:one, DNS:two"), "one");
    EXPECT_EQ(name("common", "IP:192.0.2.7, DNS:one"), "one");
    EXPECT_EQ(name("common", "IP:192.0.2.7"), "common");
    EXPECT_EQ(name("common", ""), "common");
    EXPECT_EQ(name("", "IP:192.0.2.7"), "");
    EXPECT_EQ(name("gr\xc3\xbcn", ""), "gr\xc3\xbcn");
}

TEST_F(TlsNamesTest, AHostMustBeNamed)
{
    EXPECT_TRUE(fits("DNS:one, DNS:two", "one"));
    EXPECT_TRUE(fits("DNS:one, DNS:two", "two"));
    EXPECT_TRUE(fits("DNS:one.example.com", "ONE.example.com."));
    EXPECT_FALSE(fits("DNS:one.example.com", "one"));
    EXPECT_FALSE(fits("DNS:one", "one.example.com"));
    EXPECT_FALSE(fits("DNS:one", "common")) << "with DNS names, the common name does not count";
    EXPECT_TRUE(fits("IP:192.0.2.7", "common"));
    EXPECT_FALSE(fits("DNS:one", ""));
    EXPECT_FALSE(fits("DNS:one", "."));
    EXPECT_FALSE(fits("DNS:one", std::string("one\0two", 7)));
}

TEST_F(TlsNamesTest, AStarStandsForTheFirstLabel)
{
    EXPECT_TRUE(fits("DNS:*.example.com", "one.example.com"));
    EXPECT_FALSE(fits("DNS:*.example.com", "a.one.example.com"));
    EXPECT_FALSE(fits("DNS:*.example.com", "example.com"));
    EXPECT_FALSE(fits("DNS:o*.example.com", "one.example.com"));
}

TEST_F(TlsNamesTest, AnAddressMustBeAmongTheAddresses)
{
    EXPECT_TRUE(fits("IP:192.0.2.7", "192.0.2.7"));
    EXPECT_FALSE(fits("IP:192.0.2.7", "192.0.2.8"));
    EXPECT_TRUE(fits("IP:2001:db8::7", "2001:0db8::7"));
    EXPECT_FALSE(fits("DNS:192.0.2.7", "192.0.2.7"));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
