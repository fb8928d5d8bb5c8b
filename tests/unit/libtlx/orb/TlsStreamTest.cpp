// The bytes of a TLS connection, over a pair of sockets.

#include "../../../../libtlx/lib/orb/TlsStream.h"

#include <chrono>
#include <limits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TlsFixture.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;
using QmTest::Authority;
using QmTest::Certificate;
using State = ByteStream::State;

constexpr std::size_t ALL = std::numeric_limits<std::size_t>::max();

struct TlsStreamTest : TlsFixture
{
    /// Reads what has arrived.
    std::string read()
    {
        std::string text;
        std::vector<char> buffer(100000);
        for (;;) {
            last = stream.read(buffer.data(), buffer.size());
            if (last.state != State::MOVED)
                return text;
            text.append(buffer.data(), last.bytes);
        }
    }
    ByteStream::Result write(const std::string& text)
    {
        return last = stream.write(text.data(), text.size());
    }

    /// Makes the handshake as far as both sides can go. The client sends in pieces.
    void connect(TlsClient& client, std::size_t piece = ALL)
    {
        for (int idle = 0; idle < 2; ++idle) {
            client.shake();
            if (client.send(piece) > 0)
                idle = 0;
            read();
            if (client.receive() > 0)
                idle = 0;
        }
        client.read(); // a refusal comes after the client's part of the handshake
    }

    /// The reason why the server refuses a client.
    std::string refusalOf(const Certificate& own, int highest = 0)
    {
        TlsClient client(sockets.peer(), own, highest);
        connect(client);
        EXPECT_EQ(last.state, State::ENDED);
        EXPECT_EQ(stream.peerName(), "");
        EXPECT_EQ(ERR_peek_error(), 0U) << "the errors of this thread were left behind";
        char byte = 0;
        EXPECT_EQ(stream.read(&byte, 1).state, State::ENDED);
        EXPECT_EQ(stream.write(&byte, 1).state, State::ENDED);
        EXPECT_FALSE(stream.hasBuffered());
        return stream.error();
    }

    const Certificate clients = authority.issue({.commonName = "x", .names = "DNS:client1"});
    const std::shared_ptr<TlsContext> context = load(folder);
    SocketPair sockets;
    TlsStream stream{sockets.own(), context->server()};
    ByteStream::Result last{State::MOVED};
};

TEST_F(TlsStreamTest, CarriesBytesInBothDirections)
{
    TlsClient client(sockets.peer(), clients);
    EXPECT_EQ(stream.peerName(), "");
    connect(client);
    EXPECT_EQ(stream.peerName(), "client1");
    EXPECT_EQ(last.state, State::NEEDS_INPUT);
    ASSERT_TRUE(client.write("question"));
    client.send(ALL);
    EXPECT_EQ(read(), "question");
    EXPECT_EQ(write("answer").bytes, 6U);
    client.receive();
    EXPECT_EQ(client.read(), "answer");
    EXPECT_EQ(stream.error(), "");
    EXPECT_EQ(std::string(SSL_get_version(client.ssl())), "TLSv1.3");
}

TEST_F(TlsStreamTest, AHandshakeMayComeByteByByte)
{
    TlsClient client(sockets.peer(), clients);
    connect(client, 1);
    EXPECT_EQ(stream.peerName(), "client1");
    ASSERT_TRUE(client.write("slow"));
    std::string text;
    while (client.send(1) == 1) {
        EXPECT_EQ(text, "") << "a record is read when it is whole";
        text += read();
        EXPECT_FALSE(stream.hasBuffered());
    }
    EXPECT_EQ(text, "slow");
}

TEST_F(TlsStreamTest, AWriteBeforeTheHandshakeSaysWhatItWaitsFor)
{
    TlsClient client(sockets.peer(), clients);
    EXPECT_EQ(write("early").state, State::NEEDS_INPUT);
    connect(client);
    EXPECT_EQ(write("early").state, State::MOVED);
    client.receive();
    EXPECT_EQ(client.read(), "early");
}

TEST_F(TlsStreamTest, CarriesSixteenMebibytesInBothDirectionsAtOnce)
{
    TlsClient client(sockets.peer(), clients);
    connect(client);
    std::string content(std::size_t{16} << 20, ' ');
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i * 31 + (i >> 13));
    ASSERT_TRUE(client.write(content));
    std::string here;
    std::string there;
    std::size_t written = 0;
    bool hasWaited = false;
    while (here.size() < content.size() || there.size() < content.size()) {
        client.send(1 << 20);
        here += read();
        ASSERT_NE(last.state, State::ENDED) << stream.error();
        while (written < content.size()) {
            const auto result = stream.write(content.data() + written, content.size() - written);
            ASSERT_NE(result.state, State::ENDED) << stream.error();
            hasWaited = hasWaited || result.state == State::NEEDS_OUTPUT;
            if (result.state != State::MOVED)
                break;
            written += result.bytes;
        }
        client.receive();
        there += client.read();
    }
    EXPECT_TRUE(here == content);
    EXPECT_TRUE(there == content);
    EXPECT_TRUE(hasWaited);
}

TEST_F(TlsStreamTest, BytesOfARecordThatWasNotReadWholeAreBuffered)
{
    TlsClient client(sockets.peer(), clients);
    connect(client);
    ASSERT_TRUE(client.write("two parts"));
    client.send(ALL);
    char part[4];
    EXPECT_EQ(stream.read(part, sizeof part).bytes, 4U);
    EXPECT_TRUE(stream.hasBuffered());
    EXPECT_EQ(read(), "parts");
    EXPECT_FALSE(stream.hasBuffered());
}

TEST_F(TlsStreamTest, APeerThatStopsHalfWayCostsNoWait)
{
    TlsClient client(sockets.peer(), clients);
    client.shake();
    ASSERT_EQ(client.send(100), 100U);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i) {
        read();
        ASSERT_EQ(last.state, State::NEEDS_INPUT);
        ASSERT_EQ(write("x").state, State::NEEDS_INPUT);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(stream.error(), "");
}

TEST_F(TlsStreamTest, ABlockingSocketDoesNotMakeItWait)
{
    ASSERT_EQ(::fcntl(sockets.own(), F_SETFL, 0), 0);
    read();
    EXPECT_EQ(last.state, State::NEEDS_INPUT);
}

TEST_F(TlsStreamTest, PlainTextEndsIt)
{
    const std::string request = "GIOP\1\2\1\0\0\0\0\4abcd";
    ASSERT_GT(::send(sockets.peer(), request.data(), request.size(), 0), 0);
    read();
    EXPECT_EQ(last.state, State::ENDED);
    EXPECT_EQ(stream.error(), "wrong version number");
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(TlsStreamTest, RefusesAnExpiredCertificate)
{
    EXPECT_EQ(refusalOf(authority.issue({.begin = -48h, .end = -1h})),
              "certificate verify failed: certificate has expired");
}

TEST_F(TlsStreamTest, RefusesACertificateBeforeItsTime)
{
    EXPECT_EQ(refusalOf(authority.issue({.begin = 1h})),
              "certificate verify failed: certificate is not yet valid");
}

TEST_F(TlsStreamTest, RefusesACertificateOfAForeignAuthority)
{
    const Authority foreign("Foreign");
    EXPECT_EQ(refusalOf(foreign.issue()),
              "certificate verify failed: unable to get local issuer certificate");
}

TEST_F(TlsStreamTest, RefusesAForeignAuthorityOfTheSameName)
{
    const Authority foreign;
    EXPECT_EQ(refusalOf(foreign.issue()),
              "certificate verify failed: certificate signature failure");
}

TEST_F(TlsStreamTest, RefusesASelfMadeCertificate)
{
    EXPECT_EQ(refusalOf(Authority::selfMade()),
              "certificate verify failed: self-signed certificate");
}

TEST_F(TlsStreamTest, RefusesAClientWithoutACertificate)
{
    EXPECT_EQ(refusalOf({}), "peer did not return a certificate");
}

TEST_F(TlsStreamTest, RefusesACertificateWithoutAName)
{
    EXPECT_EQ(refusalOf(authority.issue({.commonName = "", .names = "IP:192.0.2.7"})),
              "certificate verify failed: the certificate has no name");
}

TEST_F(TlsStreamTest, RefusesACertificateForServersOnly)
{
    EXPECT_EQ(refusalOf(authority.issue({.uses = "serverAuth"})),
              "certificate verify failed: unsuitable certificate purpose");
}

/// Names for a certificate, 24 bytes each.
std::string manyNames(int count)
{
    std::string names = "DNS:client1";
    for (int i = 0; i < count; ++i)
        names += ", DNS:name-of-22-bytes." + std::to_string(10000 + i);
    return names;
}

TEST_F(TlsStreamTest, ACertificateMayBeAsLargeAsTheBound)
{
    // The frame of the message and the rest of the certificate take less than 500 bytes.
    const int most = static_cast<int>((MAX_SHOWN_BYTES - 500) / 24);
    TlsClient client(sockets.peer(), authority.issue({.names = manyNames(most)}));
    connect(client);
    EXPECT_EQ(stream.peerName(), "client1");
    EXPECT_EQ(stream.error(), "");
}

TEST_F(TlsStreamTest, RefusesALargerCertificate)
{
    const int tooMany = static_cast<int>(MAX_SHOWN_BYTES / 24);
    EXPECT_EQ(refusalOf(authority.issue({.names = manyNames(tooMany)})), "excessive message size");
}

TEST_F(TlsStreamTest, APeerShowsFiveCertificatesAtMost)
{
    for (const int more : {MAX_SHOWN_CERTIFICATES - 1, MAX_SHOWN_CERTIFICATES}) {
        SocketPair other;
        TlsStream own(other.own(), context->server());
        TlsClient client(other.peer(), clients);
        for (int i = 0; i < more; ++i)
            SSL_add1_chain_cert(client.ssl(), SSL_get_certificate(client.ssl()));
        char buffer[10];
        for (int i = 0; i < 5; ++i) {
            client.shake();
            client.send(ALL);
            (void)own.read(buffer, sizeof buffer);
            client.receive();
        }
        const bool isGood = more < MAX_SHOWN_CERTIFICATES;
        EXPECT_EQ(own.peerName(), isGood ? "client1" : "");
        EXPECT_EQ(own.error(),
                  isGood ? "" : "certificate verify failed: certificate chain too long");
    }
}

TEST_F(TlsStreamTest, RefusesOlderVersions)
{
    EXPECT_EQ(refusalOf(clients, TLS1_2_VERSION), "unsupported protocol");
}

TEST_F(TlsStreamTest, SaysThatThePeerClosedItDuringTheHandshake)
{
    sockets.closePeer();
    read();
    EXPECT_EQ(last.state, State::ENDED);
    EXPECT_EQ(stream.error(), "the peer closed the connection during the TLS handshake");
}

TEST_F(TlsStreamTest, AClosedConnectionIsNoError)
{
    TlsClient client(sockets.peer(), clients);
    connect(client);
    ASSERT_TRUE(client.write("last"));
    client.send(ALL);
    sockets.closePeer();
    EXPECT_EQ(read(), "last");
    EXPECT_EQ(last.state, State::ENDED);
    EXPECT_EQ(stream.error(), "");
}

TEST_F(TlsStreamTest, AGoodbyeIsNoError)
{
    TlsClient client(sockets.peer(), clients);
    connect(client);
    SSL_shutdown(client.ssl());
    client.send(ALL);
    read();
    EXPECT_EQ(last.state, State::ENDED);
    EXPECT_EQ(stream.error(), "");
}

/// An alert: close_notify.
constexpr std::string_view GOODBYE("\x15\x03\x03\x00\x02\x01\x00", 7);

TEST_F(TlsStreamTest, AGoodbyeInsteadOfAHandshakeIsAnError)
{
    ASSERT_EQ(::send(sockets.peer(), GOODBYE.data(), GOODBYE.size(), 0), 7);
    read();
    EXPECT_EQ(last.state, State::ENDED);
    EXPECT_EQ(stream.error(), "unexpected message");
}

TEST_F(TlsStreamTest, AGoodbyeDuringTheHandshakeIsAnError)
{
    TlsClient client(sockets.peer(), clients);
    client.shake();
    client.send(ALL);
    read();
    ASSERT_EQ(last.state, State::NEEDS_INPUT);
    ASSERT_EQ(::send(sockets.peer(), GOODBYE.data(), GOODBYE.size(), 0), 7);
    read();
    EXPECT_EQ(last.state, State::ENDED);
    EXPECT_EQ(stream.error(), "the peer gave up the TLS handshake");
}

TEST_F(TlsStreamTest, WritingToAClosedConnectionRaisesNoSignal)
{
    TlsClient client(sockets.peer(), clients);
    connect(client);
    sockets.closePeer();
    EXPECT_EQ(write("x").state, State::ENDED);
    EXPECT_EQ(stream.error(), "Broken pipe");
}

TEST_F(TlsStreamTest, APeerThatDoesNotReadNeedsOutput)
{
    TlsClient client(sockets.peer(), clients);
    connect(client);
    const std::string piece(65536, 'x');
    std::size_t written = 0;
    while (write(piece).state == State::MOVED)
        written += last.bytes;
    EXPECT_EQ(last.state, State::NEEDS_OUTPUT);
    EXPECT_GT(written, 0U);
}

TEST_F(TlsStreamTest, SaysGoodbyeWhenItIsDestroyed)
{
    SocketPair other;
    TlsClient client(other.peer(), clients);
    {
        TlsStream own(other.own(), context->server());
        char buffer[10];
        for (int i = 0; i < 5; ++i) {
            client.shake();
            client.send(ALL);
            EXPECT_EQ(own.read(buffer, sizeof buffer).state, State::NEEDS_INPUT);
            client.receive();
        }
        EXPECT_EQ(own.peerName(), "client1");
    }
    client.receive();
    client.read();
    EXPECT_EQ(SSL_get_shutdown(client.ssl()), SSL_RECEIVED_SHUTDOWN);
}

TEST_F(TlsStreamTest, AReloadHoldsForNewConnections)
{
    TlsClient before(sockets.peer(), clients);
    connect(before);
    folder.replace(authority.issue({.commonName = "renewed", .names = "DNS:renewed"}));
    const Authority next("Next authority");
    folder.write("ca.pem", next.pem(), 0644);
    ASSERT_TRUE(context->reload());
    ASSERT_TRUE(before.write("still here"));
    before.send(ALL);
    EXPECT_EQ(read(), "still here");

    SocketPair other;
    TlsStream fresh(other.own(), context->server());
    const Certificate later = next.issue({.names = "DNS:later"});
    TlsClient after(other.peer(), later);
    char buffer[10];
    for (int i = 0; i < 5; ++i) {
        after.shake();
        after.send(ALL);
        ASSERT_EQ(fresh.read(buffer, sizeof buffer).state, State::NEEDS_INPUT) << fresh.error();
        after.receive();
    }
    EXPECT_EQ(fresh.peerName(), "later");
    char name[20];
    X509_NAME_get_text_by_NID(X509_get_subject_name(SSL_get0_peer_certificate(after.ssl())),
                              NID_commonName, name, sizeof name);
    EXPECT_EQ(std::string(name), "renewed");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
