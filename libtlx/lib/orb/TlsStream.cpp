#include "TlsStream.h"

#include <cerrno>
#include <system_error>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/socket.h>

#include "TlsNames.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

// The TLS library's own access to sockets waits on a blocking socket, and raises SIGPIPE.

int socketOf(BIO* bio)
{
    return *static_cast<const int*>(BIO_get_data(bio));
}

bool mayRepeat()
{
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

int receive(BIO* bio, char* buffer, std::size_t size, std::size_t* count)
{
    BIO_clear_retry_flags(bio);
    const ssize_t got = ::recv(socketOf(bio), buffer, size, MSG_DONTWAIT);
    if (got < 0 && mayRepeat())
        BIO_set_retry_read(bio);
    if (got == 0)
        BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
    *count = got > 0 ? static_cast<std::size_t>(got) : 0;
    return got > 0 ? 1 : static_cast<int>(got);
}

int transmit(BIO* bio, const char* bytes, std::size_t size, std::size_t* count)
{
    BIO_clear_retry_flags(bio);
    const ssize_t sent = ::send(socketOf(bio), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && mayRepeat())
        BIO_set_retry_write(bio);
    *count = sent > 0 ? static_cast<std::size_t>(sent) : 0;
    return sent > 0 ? 1 : static_cast<int>(sent);
}

long control(BIO* bio, int command, long, void*)
{
    if (command == BIO_CTRL_EOF)
        return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

/// Lives until the process ends. Null without memory.
const BIO_METHOD* socketMethod()
{
    static const BIO_METHOD* const method = [] {
        BIO_METHOD* const made =
            BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket that never waits");
        if (made) {
            BIO_meth_set_read_ex(made, &receive);
            BIO_meth_set_write_ex(made, &transmit);
            BIO_meth_set_ctrl(made, &control);
        }
        return made;
    }();
    return method;
}

/// Null without memory. The connection reads the number of its socket where it is.
SSL* makeConnection(const int& socket, SSL_CTX* context)
{
    SSL* const connection = SSL_new(context);
    BIO* const bio = socketMethod() ? BIO_new(socketMethod()) : nullptr;
    if (!connection || !bio) {
        SSL_free(connection);
        BIO_free(bio);
        return nullptr;
    }
    BIO_set_data(bio, const_cast<int*>(&socket));
    BIO_set_init(bio, 1);
    SSL_set_bio(connection, bio, bio);
    SSL_set_accept_state(connection);
    return connection;
}

} // namespace

TlsStream::TlsStream(int socket, SSL_CTX* context)
    : m_socket(socket), m_connection(makeConnection(m_socket, context))
{
    if (!m_connection)
        end("no memory for TLS");
    ERR_clear_error();
}

TlsStream::~TlsStream()
{
    if (m_isUp && !m_hasEnded)
        (void)SSL_shutdown(m_connection.get());
    ERR_clear_error();
}

template <class Move>
ByteStream::Result TlsStream::move(std::size_t size, Move move)
{
    const std::lock_guard guard(m_mutex);
    if (m_hasEnded)
        return {State::ENDED};
    if (size == 0)
        return {State::MOVED};
    ERR_clear_error();
    std::size_t count = 0;
    const int returned = move(m_connection.get(), count);
    if (!m_isUp && SSL_is_init_finished(m_connection.get()) == 1) {
        m_isUp = true;
        m_peerName = Tlx::peerName(m_connection.get());
    }
    return returned == 1 ? Result{State::MOVED, count} : outcome(returned);
}

ByteStream::Result TlsStream::read(void* buffer, std::size_t size)
{
    return move(size, [=](SSL* connection, std::size_t& count) {
        return SSL_read_ex(connection, buffer, size, &count);
    });
}

ByteStream::Result TlsStream::write(const void* buffer, std::size_t size)
{
    return move(size, [=](SSL* connection, std::size_t& count) {
        return SSL_write_ex(connection, buffer, size, &count);
    });
}

ByteStream::Result TlsStream::outcome(int returned)
{
    const int systemError = errno;
    switch (SSL_get_error(m_connection.get(), returned)) {
    case SSL_ERROR_WANT_READ:
        return {State::NEEDS_INPUT};
    case SSL_ERROR_WANT_WRITE:
        return {State::NEEDS_OUTPUT};
    case SSL_ERROR_ZERO_RETURN:
        end(m_isUp ? "" : "the peer gave up the TLS handshake");
        break;
    case SSL_ERROR_SSL: {
        std::string why = whyFailed(m_connection.get());
        if (why.empty() && !m_isUp)
            why = "the peer closed the connection during the TLS handshake";
        end(std::move(why));
        break;
    }
    default:
        end(std::error_code(systemError, std::generic_category()).message());
    }
    return {State::ENDED};
}

void TlsStream::end(std::string why)
{
    m_hasEnded = true;
    m_error = std::move(why);
    ERR_clear_error();
}

bool TlsStream::hasBuffered() const
{
    const std::lock_guard guard(m_mutex);
    return !m_hasEnded && SSL_pending(m_connection.get()) > 0;
}

std::string TlsStream::peerName() const
{
    const std::lock_guard guard(m_mutex);
    return m_peerName;
}

std::string TlsStream::error() const
{
    const std::lock_guard guard(m_mutex);
    return m_error;
}

} // namespace Veltrane::Quillmark::Tlx
