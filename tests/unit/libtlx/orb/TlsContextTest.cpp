// The files of TLS, their checks, and the end of a certificate.

#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TlsFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;
using QmTest::Authority;
using QmTest::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

struct TlsContextTest : TlsFixture
{
    TlsFiles files() const
    {
        return {folder.path("certificate.pem"), folder.path("key.pem"), folder.path("ca.pem")};
    }
    /// The mistake, with "@" for the folder.
    std::string mistake(const TlsFiles& wanted) const
    {
        const auto loaded = TlsContext::load(wanted, folder.directory());
        std::string text = loaded ? "" : loaded.error();
        const std::string path = folder.directory() + "/";
        for (auto at = text.find(path); at != std::string::npos; at = text.find(path))
            text.replace(at, path.size(), "@");
        EXPECT_EQ(ERR_peek_error(), 0U) << "the errors of this thread were left behind";
        return text;
    }
    std::string mistake() const { return mistake(files()); }
};

TEST_F(TlsContextTest, TakesGoodFiles)
{
    EXPECT_EQ(mistake(), "");
    const auto context = load(folder);
    EXPECT_EQ(context->identity()->name(), "server1");
    EXPECT_TRUE(context->identity()->isSignedByAuthority());
    const auto left = context->expiry() - TlsContext::Clock::now();
    EXPECT_GT(left, 364 * 24h);
    EXPECT_LE(left, 365 * 24h);
}

TEST_F(TlsContextTest, NamesTheKeyOfAFileThatIsNotSet)
{
    EXPECT_EQ(mistake({"", files().key, files().ca}), "TLS_CERTIFICATE is not set. TLS needs it");
    EXPECT_EQ(mistake({files().certificate, "", files().ca}), "TLS_KEY is not set. TLS needs it");
    EXPECT_EQ(mistake({files().certificate, files().key, ""}), "TLS_CA is not set. TLS needs it");
}

TEST_F(TlsContextTest, NamesAMissingFile)
{
    EXPECT_EQ(mistake({folder.path("none"), files().key, files().ca}),
              "TLS_CERTIFICATE = @none: cannot examine @none: No such file or directory");
    EXPECT_EQ(mistake({files().certificate, folder.path("none"), files().ca}),
              "TLS_KEY = @none: cannot examine @none: No such file or directory");
    EXPECT_EQ(mistake({files().certificate, files().key, folder.path("none")}),
              "TLS_CA = @none: cannot examine @none: No such file or directory");
}

TEST_F(TlsContextTest, RefusesAKeyThatOthersCanRead)
{
    for (const auto& [mode, shown] : {std::pair{0640, "0640"}, {0604, "0604"}, {0644, "0644"}}) {
        ASSERT_EQ(::chmod(files().key.c_str(), static_cast<mode_t>(mode)), 0);
        EXPECT_EQ(mistake(), "TLS_KEY = @key.pem: others may use @key.pem (mode " +
                                 std::string(shown) + "); mode 0600 is expected");
    }
    ASSERT_EQ(::chmod(files().key.c_str(), 0400), 0);
    EXPECT_EQ(mistake(), "");
}

TEST_F(TlsContextTest, RefusesCertificatesThatOthersCanWrite)
{
    ASSERT_EQ(::chmod(files().ca.c_str(), 0664), 0);
    EXPECT_EQ(mistake(), "TLS_CA = @ca.pem: others may write @ca.pem (mode 0664)");
    ASSERT_EQ(::chmod(files().certificate.c_str(), 0646), 0);
    EXPECT_EQ(mistake(), "TLS_CERTIFICATE = @certificate.pem: others may write @certificate.pem "
                         "(mode 0646)");
}

TEST_F(TlsContextTest, RefusesAKeyOfAnotherCertificate)
{
    folder.write("key.pem", authority.issue().key, 0600);
    EXPECT_EQ(mistake(),
              "TLS_KEY = @key.pem: the key does not fit the certificate in @certificate.pem");
}

TEST_F(TlsContextTest, RefusesFilesThatAreNotWhatTheyShouldBe)
{
    folder.write("key.pem", folder.lines("on"), 0600);
    EXPECT_EQ(mistake(), "TLS_KEY = @key.pem: there is no key in PEM format without a password: "
                         "unsupported");
    folder.write("ca.pem", "nothing\n", 0644);
    folder.replace(authority.issue());
    EXPECT_EQ(mistake(), "TLS_CA = @ca.pem: there is no certificate in PEM format");
    folder.write("ca.pem", "", 0644);
    EXPECT_EQ(mistake(), "TLS_CA = @ca.pem: the file is empty");
    folder.write("certificate.pem",
                 "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n", 0644);
    EXPECT_THAT(mistake(), testing::StartsWith(
                               "TLS_CERTIFICATE = @certificate.pem: cannot read a certificate: "));
    folder.write("certificate.pem", std::string((1 << 20) + 1, 'x'), 0644);
    EXPECT_EQ(mistake(), "TLS_CERTIFICATE = @certificate.pem: cannot read it: File too large");
}

TEST_F(TlsContextTest, RefusesACertificateWithoutAName)
{
    folder.replace(authority.issue({.commonName = "", .names = "IP:192.0.2.7"}));
    EXPECT_EQ(mistake(), "TLS_CERTIFICATE = @certificate.pem: the certificate has no name");
}

TEST_F(TlsContextTest, TakesAnExpiredCertificateAndACaThatHasNotSignedIt)
{
    folder.replace(authority.issue({.begin = -48h, .end = -24h}));
    {
        const LogCapture log;
        EXPECT_EQ(mistake(), "");
        EXPECT_THAT(log.texts(1), IsEmpty());
    }
    folder.replace(Authority::selfMade());
    const LogCapture log;
    EXPECT_EQ(mistake(), "");
    EXPECT_THAT(log.texts(1), ElementsAre("Peers will refuse the certificate in " +
                                          folder.path("certificate.pem") +
                                          " (TLS_CERTIFICATE): no authority in " +
                                          folder.path("ca.pem") + " (TLS_CA) has signed it"));
}

TEST_F(TlsContextTest, AReloadThatFailsKeepsTheOldCertificate)
{
    const auto context = load(folder);
    folder.write("key.pem", authority.issue().key, 0600);
    const LogCapture log;
    EXPECT_FALSE(context->reload());
    EXPECT_EQ(context->identity()->name(), "server1");
    const std::string text =
        "The old TLS certificate stays in use: TLS_KEY = " + folder.path("key.pem") +
        ": the key does not fit the certificate in " + folder.path("certificate.pem");
    EXPECT_THAT(log.texts(1), ElementsAre(text));
    EXPECT_THAT(log.severities(text), ElementsAre(LogSeverity::Error));
}

TEST_F(TlsContextTest, WarnsOnceADayBeforeTheEnd)
{
    const auto context = load(folder);
    const auto end = context->expiry();
    const LogCapture log;
    const auto lines = [&] { return log.texts(1).size(); };
    context->checkExpiry(end - EXPIRY_WARNING - 1s);
    EXPECT_EQ(lines(), 0U);
    context->checkExpiry(end - EXPIRY_WARNING);
    ASSERT_EQ(lines(), 1U);
    EXPECT_THAT(log.texts(1)[0],
                testing::MatchesRegex("The certificate in .* \\(TLS_CERTIFICATE\\) expires at .* "
                                      "UTC, in 30 days. Replace it, then send SIGHUP"));
    EXPECT_THAT(log.severities(log.texts(1)[0]), ElementsAre(LogSeverity::Warning));
    context->checkExpiry(end - EXPIRY_WARNING + EXPIRY_WARNING_INTERVAL - 1s);
    EXPECT_EQ(lines(), 1U);
    context->checkExpiry(end - EXPIRY_WARNING + EXPIRY_WARNING_INTERVAL);
    EXPECT_EQ(lines(), 2U);
    context->checkExpiry(end - EXPIRY_WARNING + EXPIRY_WARNING_INTERVAL - 1h);
    EXPECT_EQ(lines(), 2U) << "the clock was set back a little";
    context->checkExpiry(end);
    ASSERT_EQ(lines(), 3U);
    EXPECT_THAT(log.texts(1)[2],
                testing::MatchesRegex("The certificate in .* \\(TLS_CERTIFICATE\\) expired at .* "
                                      "UTC. Other hosts refuse this one"));
    EXPECT_THAT(log.severities(log.texts(1)[2]), ElementsAre(LogSeverity::Error));
    context->checkExpiry(end - 10 * 24h);
    EXPECT_EQ(lines(), 4U) << "a clock that was set back far does not silence it";
}

TEST_F(TlsContextTest, AReloadWarnsAnew)
{
    const auto context = load(folder);
    const LogCapture log;
    const auto when = context->expiry() - 1h;
    context->checkExpiry(when);
    folder.replace(authority.issue());
    ASSERT_TRUE(context->reload());
    context->checkExpiry(when);
    EXPECT_EQ(log.texts(1).size(), 2U);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
