#pragma once
// The bytes of a connection that another host has opened with TLS.

#include <memory>
#include <mutex>

#include <openssl/ssl.h>

#include "ByteStream.h"

namespace Veltrane::Quillmark::Tlx {

/// The first reads and writes make the handshake. So the answer to a read may be NEEDS_OUTPUT, and
/// the other way round: wait for that, and repeat the call. A repeated write begins with the same
/// bytes; more may follow them. A TLS error ends the stream.
///
/// Any thread. A mutex orders the calls; none of them waits for the peer.
class TlsStream final : public ByteStream
{
  public:
    /// @param socket stays the caller's, and must live longer than this object.
    /// @param context the rules for servers. The stream keeps it alive.
    TlsStream(int socket, SSL_CTX* context);
    /// Says goodbye to the peer, if the socket takes it at once.
    ~TlsStream() override;

    Result read(void* buffer, std::size_t size) override;
    Result write(const void* buffer, std::size_t size) override;
    bool hasBuffered() const override;
    std::string peerName() const override;
    std::string error() const override;

  private:
    template <class Move>
    Result move(std::size_t size, Move move);
    Result outcome(int returned);
    void end(std::string why);

    struct Free
    {
        void operator()(SSL* each) const { SSL_free(each); }
    };

    const int m_socket;
    mutable std::mutex m_mutex;
    std::unique_ptr<SSL, Free> m_connection; ///< null without memory for it
    bool m_isUp = false;                     ///< whether the handshake has ended
    bool m_hasEnded = false;
    std::string m_peerName;
    std::string m_error;
};

} // namespace Veltrane::Quillmark::Tlx
