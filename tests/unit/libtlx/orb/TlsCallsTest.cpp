// Calls to other hosts over TLS, on the loopback. A thread of the test plays the other host.

#include "../../../../libtlx/lib/orb/TlsCalls.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <optional>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <tlx/HostConfig.h>
#include <tlx/Orb.h>
#include <tlx/OrbKeys.h>
#include <tlx/Resolver.h>

#include "TlsFixture.h"
#include "support/Capture.h"
#include "support/Eventually.h"
#include "support/SilentPeer.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;
using QmTest::Authority;
using QmTest::Certificate;
using QmTest::LogCapture;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

/// Serves one connection after the other, with TLS or without: answers each request with "the
/// object is here".
class TlsPeer : public QmTest::SilentPeer
{
  public:
    /// @param context null for a plain server.
    explicit TlsPeer(std::shared_ptr<TlsContext> context)
        : m_context(std::move(context)), m_thread([this] { serve(); })
    {
    }
    ~TlsPeer()
    {
        m_stop = true;
        ::shutdown(socket(), SHUT_RDWR);
        m_thread.join();
    }
    int answers() const { return m_answers; }
    int connections() const { return m_connections; }
    /// Sends these bytes to each new connection, and nothing else.
    void greetWith(const std::string& bytes) { m_greeting = bytes; }
    /// Answers so many requests, and then no more.
    void fallSilentAfter(int answers) { m_mostAnswers = answers; }
    void forgetAnswers() { m_answers = 0; }
    /// The names of the clients, one for each connection whose handshake ended.
    std::vector<std::string> clients() const
    {
        const std::lock_guard guard(m_mutex);
        return m_clients;
    }

  private:
    void serve()
    {
        for (;;) {
            const int fd = ::accept(socket(), nullptr, nullptr);
            if (fd < 0)
                return;
            ++m_connections;
            if (!m_greeting.empty())
                (void)::send(fd, m_greeting.data(), m_greeting.size(), MSG_NOSIGNAL);
            else
                answer(fd);
            ::close(fd);
        }
    }
    void answer(int fd)
    {
        std::optional<TlsStream> stream;
        if (m_context)
            stream.emplace(fd, m_context->server());
        const auto move = [&](bool isWrite, char* bytes, std::size_t size) {
            for (std::size_t done = 0; done < size && !m_stop;) {
                ByteStream::Result result{ByteStream::State::ENDED};
                if (stream) {
                    result = isWrite ? stream->write(bytes + done, size - done)
                                     : stream->read(bytes + done, size - done);
                } else {
                    const ssize_t count =
                        isWrite ? ::send(fd, bytes + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT)
                                : ::recv(fd, bytes + done, size - done, MSG_DONTWAIT);
                    if (count > 0)
                        result = {ByteStream::State::MOVED, static_cast<std::size_t>(count)};
                    else if (count < 0 && errno == EAGAIN)
                        result = {ByteStream::State::NEEDS_INPUT};
                }
                if (result.state == ByteStream::State::ENDED)
                    return false;
                done += result.bytes;
                pollfd ready{fd, POLLIN, 0};
                if (result.state == ByteStream::State::NEEDS_INPUT)
                    (void)::poll(&ready, 1, 20);
            }
            return !m_stop;
        };
        bool isFirst = true;
        for (;;) {
            char request[512];
            if (!move(false, request, 16))
                return;
            if (isFirst && stream) {
                const std::lock_guard guard(m_mutex);
                m_clients.push_back(stream->peerName());
            }
            isFirst = false;
            std::uint32_t left = 0;
            std::memcpy(&left, request + 8, sizeof left);
            left -= 4; // the request's id has been read
            if (std::memcmp(request, "GIOP", 4) != 0 || left > sizeof request - 16 ||
                !move(false, request + 16, left))
                return;
            // Byte order as in the request, then: size, id, no exception, no contexts, false.
            char reply[25] = {'G', 'I', 'O', 'P', 1, 2, request[6], 1, 13};
            std::memcpy(reply + 12, request + 12, 4);
            if (m_answers >= m_mostAnswers)
                continue;
            ++m_answers;
            if (!move(true, reply, sizeof reply))
                return;
        }
    }

    const std::shared_ptr<TlsContext> m_context;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_answers{0};
    std::atomic<int> m_connections{0};
    std::atomic<int> m_mostAnswers{1000000};
    std::string m_greeting;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_clients;
    std::thread m_thread;
};

struct TlsCallsTest : TlsFixture
{
    TlsCallsTest()
    {
        setResolver([this](const std::string& host) -> std::vector<std::string> {
            return host == m_host ? std::vector<std::string>{"127.0.0.1"}
                                  : std::vector<std::string>();
        });
    }
    ~TlsCallsTest() override { setResolver({}); }

    /// Takes the configuration for a server that listens at a port.
    void configure(const std::string& mode, std::uint16_t port, const std::string& host = "server1")
    {
        m_host = host;
        HostConfig::instance().readText(client.lines(mode) + "ENDPOINT." + host + " = " + host +
                                            ":" + std::to_string(port) + "\n",
                                        "qm.conf");
    }
    static tl::expected<CORBA::Object_var, LookupFailure>
    find(Orb& orb, std::chrono::milliseconds limit = 10s, const std::string& host = "server1",
         std::optional<Endpoint> endpoint = std::nullopt)
    {
        return orb.lookupObject({.host = TlxHostname(host.c_str()),
                                 .name = "Thing",
                                 .endpoint = std::move(endpoint),
                                 .limit = limit});
    }
    /// Calls the server as a host of that name. Returns the failure; empty for an answer.
    std::string call(const TlsPeer& server, const std::string& mode,
                     const std::string& host = "server1")
    {
        configure(mode, server.port(), host);
        Orb orb(true, "", "S", false);
        const auto found = find(orb, 10s, host);
        return found ? "" : found.error().cause;
    }
    /// A server with that certificate.
    std::shared_ptr<TlsContext> contextOf(const Certificate& own) const
    {
        const QmTest::TlsFolder files(own, authority.pem());
        return load(files);
    }
    std::string lineAbout(const std::string& host, const std::string& why) const
    {
        return "No TLS connection to " + host + " (127.0.0.1): " + why;
    }

    const QmTest::TlsFolder client{
        authority.issue({.commonName = "client1", .names = "DNS:client1"}), authority.pem()};
    std::string m_host;
};

TEST_F(TlsCallsTest, BothSidesProveTheirNames)
{
    TlsPeer server(load(folder));
    const LogCapture log;
    EXPECT_EQ(call(server, "required"), "");
    EXPECT_EQ(server.answers(), 1);
    EXPECT_THAT(server.clients(), ElementsAre("client1"));
    EXPECT_THAT(log.texts(1), IsEmpty());
}

TEST_F(TlsCallsTest, TlsIsPreferredWhenItIsOn)
{
    TlsPeer server(load(folder));
    const LogCapture log;
    EXPECT_EQ(call(server, "on"), "");
    EXPECT_THAT(server.clients(), ElementsAre("client1"));
    EXPECT_THAT(log.texts(1), IsEmpty());
}

TEST_F(TlsCallsTest, WithoutTlsNothingChanges)
{
    TlsPeer server(nullptr);
    const LogCapture log;
    EXPECT_EQ(call(server, "off"), "");
    EXPECT_EQ(server.connections(), 1);
    EXPECT_EQ(Orb::tlsExpiry(), 0);
    EXPECT_THAT(log.texts(1), IsEmpty());
}

TEST_F(TlsCallsTest, OffNeedsNoFiles)
{
    TlsPeer server(nullptr);
    client.write("key.pem", "nonsense", 0666);
    EXPECT_EQ(call(server, "off"), "");
}

TEST_F(TlsCallsTest, APlainServerIsRefusedWhenTlsIsRequired)
{
    TlsPeer server(nullptr);
    const LogCapture log;
    EXPECT_THAT(call(server, "required"),
                EndsWith(", TLS: it closed the connection during the TLS handshake"));
    EXPECT_EQ(server.answers(), 0);
    EXPECT_THAT(log.texts(1), Contains(lineAbout(
                                  "server1", "it closed the connection during the TLS handshake")));
}

TEST_F(TlsCallsTest, APlainServerIsCalledWithOneWarningWhenTlsIsOn)
{
    TlsPeer server(nullptr);
    const LogCapture log;
    EXPECT_EQ(call(server, "on"), "");
    EXPECT_EQ(server.answers(), 1);
    EXPECT_THAT(log.texts(1), ElementsAre("TLS does not protect the calls to server1 (127.0.0.1) "
                                          "(TLS = on): the connection is plain"));
}

TEST_F(TlsCallsTest, AServerOfAnotherNameIsRefused)
{
    TlsPeer server(contextOf(authority.issue({.commonName = "x", .names = "DNS:client2"})));
    const LogCapture log;
    EXPECT_THAT(call(server, "required"),
                EndsWith(", TLS: its certificate names client2, not server1"));
    EXPECT_EQ(server.answers(), 0);
    EXPECT_THAT(log.texts(1),
                ElementsAre(lineAbout("server1", "its certificate names client2, not server1")));
}

// Somebody who controls the names of the network lets server1 lead to the address of client2.
TEST_F(TlsCallsTest, AKnownHostCannotPlayAnotherOneAtItsAddress)
{
    const auto context =
        contextOf(authority.issue({.commonName = "client2", .names = "DNS:client2"}));
    TlsPeer server(context);
    TlsPeer other(context);
    configure("required", server.port(), "client2");
    Orb orb(true, "", "S", false);
    EXPECT_TRUE(find(orb, 10s, "client2"));
    m_host = "server1";
    const LogCapture log;
    const Endpoint kept{"server1", server.port()};
    const Endpoint fresh{"server1", other.port()};
    for (const Endpoint& endpoint : {kept, fresh}) {
        const auto found = find(orb, 10s, "server1", endpoint);
        ASSERT_FALSE(found);
        EXPECT_THAT(found.error().cause,
                    EndsWith(", TLS: its certificate names client2, not server1"));
    }
    EXPECT_EQ(server.answers(), 1) << "only the call to client2";
    EXPECT_EQ(server.connections(), 2) << "the kept connection, and a new one";
    EXPECT_EQ(other.answers(), 0);
    EXPECT_THAT(log.texts(1),
                Each(lineAbout("server1", "its certificate names client2, not server1")));
    m_host = "client2";
    EXPECT_TRUE(find(orb, 10s, "client2"));
}

TEST_F(TlsCallsTest, AServerOfAnotherNameIsCalledWithAWarningWhenTlsIsOn)
{
    TlsPeer server(contextOf(authority.issue({.commonName = "x", .names = "DNS:client2"})));
    const LogCapture log;
    EXPECT_EQ(call(server, "on"), "");
    EXPECT_THAT(server.clients(), ElementsAre("client1"));
    EXPECT_THAT(log.texts(1),
                ElementsAre("TLS does not protect the calls to server1 (127.0.0.1) "
                            "(TLS = on): its certificate names client2, not server1"));
}

TEST_F(TlsCallsTest, ThisHostsOwnCertificateIsGoodForItsOwnAddresses)
{
    TlsPeer server(contextOf(authority.issue({.commonName = "x", .names = "DNS:client1"})));
    EXPECT_EQ(call(server, "required", "alias"), "");
}

TEST_F(TlsCallsTest, AServerWithABadCertificateIsRefused)
{
    const Authority foreign("Foreign");
    const std::pair<Certificate, const char*> bad[] = {
        {authority.issue({.names = "DNS:server1", .begin = -48h, .end = -1h}),
         "certificate has expired"},
        {foreign.issue({.names = "DNS:server1"}), "unable to get local issuer certificate"},
        {Authority::selfMade({.names = "DNS:server1"}), "self-signed certificate"},
        {authority.issue({.names = "DNS:server1", .uses = "clientAuth"}),
         "unsuitable certificate purpose"},
    };
    for (const auto& [certificate, why] : bad) {
        TlsPeer server(contextOf(certificate));
        const LogCapture log;
        const std::string text = std::string("certificate verify failed: ") + why;
        EXPECT_THAT(call(server, "required"), EndsWith(", TLS: " + text));
        EXPECT_EQ(server.answers(), 0);
        EXPECT_THAT(log.texts(1), Contains(lineAbout("server1", text)));
    }
}

TEST_F(TlsCallsTest, AServerThatRefusesThisHostIsNotAskedAgain)
{
    TlsPeer server(load(folder));
    client.replace(authority.issue({.begin = -48h, .end = -1h}));
    EXPECT_THAT(call(server, "required"),
                AnyOf(EndsWith(", TLS: it refused this host: certificate expired"),
                      EndsWith(", TLS: it closed a new connection, perhaps because it refused this "
                               "host")));
    EXPECT_EQ(server.answers(), 0);
    EXPECT_LE(server.connections(), 3);
}

// The ORB's own transport asserts that nobody says goodbye during a handshake.
TEST_F(TlsCallsTest, AGoodbyeDuringTheHandshakeFailsTheCall)
{
    TlsPeer server(nullptr);
    server.greetWith(std::string("\x15\x03\x03\x00\x02\x01\x00", 7));
    EXPECT_THAT(call(server, "required"), HasSubstr(", TLS: "));
}

TEST_F(TlsCallsTest, ASilentServerCostsNoMoreThanTheLimit)
{
    const QmTest::SilentPeer silent;
    configure("required", silent.port());
    Orb orb(true, "", "S", false);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(find(orb, 500ms));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 400ms);
    EXPECT_LT(took, 5s);
}

TEST_F(TlsCallsTest, AStopBreaksOffAHandshake)
{
    const QmTest::SilentPeer silent;
    configure("required", silent.port());
    Orb orb(true, "", "S", false);
    auto waiting = std::async(std::launch::async, [&orb] { return find(orb, 60s).has_value(); });
    EXPECT_EQ(waiting.wait_for(300ms), std::future_status::timeout);
    const auto start = std::chrono::steady_clock::now();
    orb.breakOffWaits();
    EXPECT_FALSE(waiting.get());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TEST_F(TlsCallsTest, AStopBreaksOffACall)
{
    TlsPeer server(load(folder));
    server.fallSilentAfter(1);
    configure("required", server.port());
    for (const unsigned limit : {0U, 60U}) { // the ORB waits in two ways
        Orb orb(true, "", "S", false);
        server.forgetAnswers();
        const auto found = find(orb);
        ASSERT_TRUE(found);
        orb.setOrbRequestTimeout(limit);
        auto waiting = std::async(std::launch::async, [&] {
            EXPECT_THROW((void)(*found)->_non_existent(), CORBA::SystemException);
        });
        EXPECT_EQ(waiting.wait_for(300ms), std::future_status::timeout);
        const auto start = std::chrono::steady_clock::now();
        orb.breakOffWaits();
        waiting.get();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
        orb.setOrbRequestTimeout(0);
    }
}

TEST_F(TlsCallsTest, AReloadHoldsForNewCalls)
{
    TlsPeer first(load(folder));
    TlsPeer second(load(folder));
    configure("required", first.port());
    Orb orb(true, "", "S", false);
    const auto lookUp = [&](const TlsPeer& server) {
        return find(orb, 10s, "server1", Endpoint{"server1", server.port()}).has_value();
    };
    EXPECT_TRUE(lookUp(first));
    const long long before = Orb::tlsExpiry();
    client.replace(authority.issue({.names = "DNS:client2", .end = 48h}));
    Orb::reloadTls();
    EXPECT_LT(Orb::tlsExpiry(), before);
    EXPECT_TRUE(lookUp(second));
    EXPECT_TRUE(lookUp(first)) << "the connection of before goes on";
    EXPECT_THAT(first.clients(), ElementsAre("client1"));
    EXPECT_THAT(second.clients(), ElementsAre("client2"));
}

// --- decisions about certificates

struct TlsComplaintTest : TlsCallsTest
{
    std::string complaint(const std::string& address, const std::string& names) const
    {
        const Certificate text = authority.issue({.commonName = "common", .names = names});
        BIO* const bio = BIO_new_mem_buf(text.certificate.data(), -1);
        X509* const certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
        BIO_free(bio);
        std::string answer = calls.complaintAbout(address, certificate);
        X509_free(certificate);
        return answer;
    }

    TlsCalls calls{load(client), TlsMode::REQUIRED};
};

TEST_F(TlsComplaintTest, AnAddressNobodyLookedUpIsRefused)
{
    EXPECT_EQ(complaint("192.0.2.7", "DNS:server1"),
              "its certificate names server1, and no host that was looked up has this address");
    EXPECT_EQ(complaint("192.0.2.7", "DNS:client1"),
              "its certificate names client1, and no host that was looked up has this address");
    calls.noteResolved("server1", {"192.0.2.7", "192.0.2.8"});
    EXPECT_EQ(complaint("192.0.2.7", "DNS:server1"), "");
    EXPECT_EQ(complaint("192.0.2.8", "DNS:server1"), "");
    EXPECT_EQ(complaint("192.0.2.9", "DNS:server1"),
              "its certificate names server1, and no host that was looked up has this address");
    EXPECT_EQ(complaint("192.0.2.7", "DNS:client2"), "its certificate names client2, not server1");
}

TEST_F(TlsComplaintTest, AHostMayBeAnAddress)
{
    calls.noteResolved("192.0.2.7", {"192.0.2.7"});
    EXPECT_EQ(complaint("192.0.2.7", "DNS:server1, IP:192.0.2.7"), "");
    EXPECT_EQ(complaint("192.0.2.7", "DNS:server1, IP:192.0.2.8"),
              "its certificate names server1, not 192.0.2.7");
}

TEST_F(TlsComplaintTest, ANameIsShownBeforeAnAddress)
{
    calls.noteResolved("192.0.2.7", {"192.0.2.7"});
    calls.noteResolved("server1", {"192.0.2.7"});
    EXPECT_EQ(complaint("192.0.2.7", "DNS:client2"), "its certificate names client2, not server1");
}

TEST_F(TlsComplaintTest, SeveralHostsMayHaveOneAddress)
{
    calls.noteResolved("one", {"192.0.2.7"});
    calls.noteResolved("two", {"192.0.2.7"});
    EXPECT_EQ(complaint("192.0.2.7", "DNS:one"), "");
    EXPECT_EQ(complaint("192.0.2.7", "DNS:two"), "");
    EXPECT_EQ(complaint("192.0.2.7", "DNS:three"), "its certificate names three, not one");
}

TEST_F(TlsComplaintTest, APlainConnectionIsRefused)
{
    EXPECT_EQ(calls.complaintAbout("192.0.2.7", nullptr), "the connection is plain");
}

TEST_F(TlsComplaintTest, ReferencesCarryTlsOnly)
{
    EXPECT_EQ(calls.locationOf("192.0.2.7:14400", "Thing"),
              "corbaloc:ssliop:1.2@192.0.2.7:14400/Thing");
    EXPECT_EQ(std::string(calls.transportRule()), "* ssl");
}

// --- mistakes in the configuration

struct TlsConfigTest : TlsCallsTest
{
    static std::string mistake(const std::string& text)
    {
        HostConfig::instance().declare(ORB_KEYS);
        HostConfig::instance().readText(text, "qm.conf");
        try {
            const Orb orb(true, "", "S", false);
        } catch (const OrbConfigError& e) {
            return e.what();
        }
        return "";
    }
};

TEST_F(TlsConfigTest, AWrongModeStopsTheStart)
{
    for (const char* const value : {"maybe", "ON", "true", "\"on\""})
        EXPECT_EQ(mistake(std::string("TLS = ") + value + "\n"),
                  std::string("TLS: '") + value +
                      "' is no mode, expected off, on or required (qm.conf:1)");
    EXPECT_EQ(mistake("TLS =\n"), "TLS: '' is no mode, expected off, on or required (qm.conf:1)");
    EXPECT_EQ(mistake("\nTLS\n"), "TLS: '' is no mode, expected off, on or required (qm.conf:2)");
    EXPECT_EQ(mistake("TLS = off\n"), "");
}

TEST_F(TlsConfigTest, AWrongFileStopsTheStart)
{
    EXPECT_EQ(mistake("TLS = required\n"), "TLS_CERTIFICATE is not set. TLS needs it");
    EXPECT_EQ(mistake(client.lines("required") + "TLS_CA = ca.pem\n"),
              "TLS_CA is not set. TLS needs it");
    EXPECT_EQ(mistake(client.lines("required")), "");
    client.write("key.pem", authority.issue().key, 0644);
    EXPECT_EQ(mistake(client.lines("on")), "TLS_KEY = " + client.path("key.pem") +
                                               ": others may use " + client.path("key.pem") +
                                               " (mode 0644); mode 0600 is expected");
    EXPECT_EQ(mistake("TLS = off\n"), "") << "the ORB starts after a failure";
}

TEST_F(TlsConfigTest, AMistakeIsKnownBeforeTheStart)
{
    const auto known = [](const std::string& text) {
        HostConfig::instance().readText(text, "qm.conf");
        return Orb::tlsMistake();
    };
    EXPECT_EQ(known(""), "");
    EXPECT_EQ(known("TLS = required\n"), "TLS_CERTIFICATE is not set. TLS needs it");
    EXPECT_EQ(known("TLS = maybe\n"), "") << "this is a mistake of the line itself";
    EXPECT_EQ(known(client.lines("on")), "");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
