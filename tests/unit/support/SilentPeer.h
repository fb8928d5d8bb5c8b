#pragma once
// A peer on the loopback that accepts connections and never answers.

#include <cstdint>
#include <stdexcept>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace QmTest {

/// The constructor listens, and throws on failure. The system accepts the connections.
class SilentPeer
{
  public:
    explicit SilentPeer(in_addr_t where = INADDR_LOOPBACK, std::uint16_t wanted = 0)
        : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(where);
        address.sin_port = htons(wanted);
        socklen_t length = sizeof address;
        if (::bind(m_socket, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(m_socket, 5) != 0 ||
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            throw std::runtime_error("no listening socket");
        m_port = ntohs(address.sin_port);
    }
    ~SilentPeer() { close(); }
    SilentPeer(const SilentPeer&) = delete;
    SilentPeer& operator=(const SilentPeer&) = delete;

    std::uint16_t port() const { return m_port; }
    std::string endpoint() const { return "127.0.0.1:" + std::to_string(m_port); }

    /// Resets its connections and listens no longer.
    void close()
    {
        if (m_socket != -1)
            ::close(m_socket);
        m_socket = -1;
    }

  protected:
    int socket() const { return m_socket; }

  private:
    int m_socket;
    std::uint16_t m_port = 0;
};

} // namespace QmTest
