#pragma once
// A TLS client for tests. The test moves its bytes by hand, in pieces of any size.

#include <array>
#include <memory>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "../../../../libtlx/lib/orb/TlsContext.h"
#include "../../../../libtlx/lib/orb/TlsStream.h"
#include "support/Certificates.h"

namespace Veltrane::Quillmark::Tlx {

/// The two ends of a connection that never blocks.
class SocketPair
{
  public:
    SocketPair()
    {
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, m_ends.data()) !=
            0)
            throw std::runtime_error("no pair of sockets");
    }
    ~SocketPair()
    {
        closePeer();
        ::close(m_ends[0]);
    }
    int own() const { return m_ends[0]; }
    int peer() const { return m_ends[1]; }
    void closePeer()
    {
        if (m_ends[1] != -1)
            ::close(m_ends[1]);
        m_ends[1] = -1;
    }

  private:
    std::array<int, 2> m_ends{-1, -1};
};

class TlsClient
{
  public:
    /// @param own may be without a certificate.
    TlsClient(int socket, const QmTest::Certificate& own, int highest = 0) : m_socket(socket)
    {
        SSL_CTX* const context = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_max_proto_version(context, highest);
        if (!own.certificate.empty())
            use(context, own);
        m_ssl = SSL_new(context);
        SSL_CTX_free(context);
        m_in = BIO_new(BIO_s_mem());
        m_out = BIO_new(BIO_s_mem());
        SSL_set_bio(m_ssl, m_in, m_out);
        SSL_set_connect_state(m_ssl);
    }
    ~TlsClient() { SSL_free(m_ssl); }
    TlsClient(const TlsClient&) = delete;
    TlsClient& operator=(const TlsClient&) = delete;

    SSL* ssl() const { return m_ssl; }

    /// Goes on with the handshake. The result of the TLS library.
    int shake()
    {
        const int done = SSL_do_handshake(m_ssl);
        ERR_clear_error();
        return done;
    }

    /// Sends at most so many bytes of what the client wants to send. Returns how many.
    std::size_t send(std::size_t most)
    {
        std::size_t sent = 0;
        while (sent < most) {
            char* data = nullptr;
            const long waiting = BIO_get_mem_data(m_out, &data);
            const std::size_t now =
                std::min({most - sent, static_cast<std::size_t>(waiting), m_piece.size()});
            if (now == 0)
                break;
            const ssize_t taken = ::send(m_socket, data, now, MSG_NOSIGNAL);
            if (taken <= 0)
                break;
            BIO_read(m_out, m_piece.data(), static_cast<int>(taken));
            sent += static_cast<std::size_t>(taken);
        }
        return sent;
    }

    /// Takes what has arrived. Returns how many bytes.
    std::size_t receive()
    {
        std::size_t received = 0;
        for (;;) {
            const ssize_t got = ::recv(m_socket, m_piece.data(), m_piece.size(), 0);
            if (got <= 0)
                return received;
            BIO_write(m_in, m_piece.data(), static_cast<int>(got));
            received += static_cast<std::size_t>(got);
        }
    }

    std::string read()
    {
        std::string text;
        std::size_t count = 0;
        while (SSL_read_ex(m_ssl, m_piece.data(), m_piece.size(), &count) == 1)
            text.append(m_piece.data(), count);
        ERR_clear_error();
        return text;
    }
    bool write(const std::string& text)
    {
        std::size_t count = 0;
        const bool done = SSL_write_ex(m_ssl, text.data(), text.size(), &count) == 1;
        ERR_clear_error();
        return done;
    }

  private:
    static void use(SSL_CTX* context, const QmTest::Certificate& own)
    {
        BIO* bio = BIO_new_mem_buf(own.certificate.data(), -1);
        X509* const certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
        BIO_free(bio);
        bio = BIO_new_mem_buf(own.key.data(), -1);
        EVP_PKEY* const key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
        BIO_free(bio);
        EXPECT_EQ(SSL_CTX_use_cert_and_key(context, certificate, key, nullptr, 1), 1);
        X509_free(certificate);
        EVP_PKEY_free(key);
    }

    const int m_socket;
    SSL* m_ssl = nullptr;
    BIO* m_in = nullptr;
    BIO* m_out = nullptr;
    std::array<char, 65536> m_piece{};
};

/// An authority, a server's files and its rules.
struct TlsFixture : testing::Test
{
    static std::shared_ptr<TlsContext> load(const QmTest::TlsFolder& folder)
    {
        auto loaded = TlsContext::load(
            {folder.path("certificate.pem"), folder.path("key.pem"), folder.path("ca.pem")},
            folder.directory());
        if (!loaded)
            throw std::runtime_error(loaded.error());
        return std::move(*loaded);
    }

    const QmTest::Authority authority;
    const QmTest::TlsFolder folder{
        authority.issue({.commonName = "server1", .names = "DNS:server1"}), authority.pem()};
};

} // namespace Veltrane::Quillmark::Tlx
