#include "WatchedTransport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <thread>

#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tlx/Corba.h>

#include <omniORB4/giopEndpoint.h>
#include <omniORB4/internal/SocketCollection.h>
#include <omniORB4/internal/tcpSocket.h>
#include <omniORB4/omniURI.h>
#include <omniORB4/tcpConnection.h>
#include <omniORB4/tcpEndpoint.h>

#include "ConnectionTable.h"
#include "PlatformLog.h"
#include "RequestPeerState.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Orb";

using std::chrono::milliseconds;

/// A GIOP message begins with this many bytes, which contain its length.
constexpr int GIOP_HEADER_BYTES = 12;
/// What must have arrived of a larger message before a thread reads it.
constexpr int ARRIVED_BYTES = 65536;

/// The ORB watches a connection in this way when a thread has served a request of it.
constexpr int AFTER_A_REQUEST = 2;

constexpr std::size_t ACCEPTED_AT_ONCE = 64;
constexpr milliseconds ACCEPT_PAUSE{20};

constexpr unsigned char GIOP_CLOSE_CONNECTION = 5;

/// The bytes of a message with this header that must have arrived, or 0 if it is no header.
int wantedBytes(const unsigned char* header)
{
    if (std::memcmp(header, "GIOP", 4) != 0)
        return 0;
    const bool isLittle = header[6] & 1;
    std::uint32_t length = 0;
    for (int i = 0; i < 4; ++i)
        length |= std::uint32_t{header[8 + i]} << (isLittle ? 8 * i : 24 - 8 * i);
    return length < ARRIVED_BYTES ? GIOP_HEADER_BYTES + static_cast<int>(length) : ARRIVED_BYTES;
}

bool isCloseConnection(const void* bytes, std::size_t size)
{
    const auto* header = static_cast<const unsigned char*>(bytes);
    return size == GIOP_HEADER_BYTES && std::memcmp(header, "GIOP", 4) == 0 &&
           header[7] == GIOP_CLOSE_CONNECTION;
}

/// One connection from another host. Two threads may be inside: one reads, one writes.
class TcpConnection final : public omni::tcpConnection, public WatchedConnection
{
  public:
    TcpConnection(int socket, omni::SocketCollection* collection,
                  std::shared_ptr<ConnectionTable> table)
        : tcpConnection(socket, collection), WatchedConnection(addressOfConnection(peeraddress())),
          m_table(std::move(table))
    {
        wakeAt(GIOP_HEADER_BYTES);
    }
    ~TcpConnection() override { m_table->remove(static_cast<omni::SocketHolder*>(this), *this); }

    void breakOff() override
    {
        m_broken = true;
        ::shutdown(handle(), SHUT_RDWR);
    }
    void Shutdown() override { breakOff(); }

    int Recv(void* buffer, std::size_t size, const omni_time_t& deadline) override
    {
        while (!m_broken) {
            const ssize_t count = ::recv(handle(), buffer, size, MSG_DONTWAIT);
            if (count > 0)
                return static_cast<int>(count);
            if (count == 0 || (errno != EAGAIN && errno != EINTR))
                return -1;
            wakeAt(1);
            if (!waitFor(POLLIN, deadline, "a request stalled while it arrived"))
                return -1;
        }
        return -1;
    }

    int Send(void* buffer, std::size_t size, const omni_time_t& deadline) override
    {
        for (;;) {
            const ssize_t count = ::send(handle(), buffer, size, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (count > 0)
                return static_cast<int>(count);
            if (count == 0 || (errno != EAGAIN && errno != EINTR))
                return -1;
            // The ORB says goodbye while it holds locks that all requests need.
            if (m_broken || isCloseConnection(buffer, size))
                return -1;
            if (!waitFor(POLLOUT, deadline, "the peer does not read its reply"))
                return -1;
        }
    }

    bool beginRequest() override
    {
        if (Tlx::beginRequest(threads()))
            return true;
        m_table->noteRefused(*this);
        return false;
    }

    void setSelectable(int now, CORBA::Boolean dataInBuffer) override
    {
        if (now == AFTER_A_REQUEST)
            endRequest();
        wakeAt(GIOP_HEADER_BYTES);
        if (dataInBuffer)
            m_dataInBuffer = true;
        tcpConnection::setSelectable(now, dataInBuffer);
    }

    CORBA::Boolean Peek() override
    {
        endRequest();
        if (!tcpConnection::Peek())
            return false;
        if (takeDataInBuffer() || hasArrived())
            return true;
        tcpConnection::setSelectable(1, false);
        return false;
    }

    /// The socket can be read. Returns whether a thread may serve it. Otherwise the collection
    /// watches it again.
    bool isReady()
    {
        if (takeDataInBuffer() || hasArrived())
            return true;
        tcpConnection::setSelectable(1, false);
        return false;
    }

  private:
    bool takeDataInBuffer()
    {
        const bool hasSome = m_dataInBuffer.exchange(false);
        if (hasSome)
            noteRequest();
        return hasSome;
    }

    /// Whether the message that comes next has arrived, or will never.
    bool hasArrived()
    {
        std::array<unsigned char, GIOP_HEADER_BYTES> header{};
        const ssize_t seen =
            ::recv(handle(), header.data(), header.size(), MSG_PEEK | MSG_DONTWAIT);
        int available = 0;
        int wanted = 0;
        if (seen == GIOP_HEADER_BYTES && (wanted = wantedBytes(header.data())) > 0 &&
            ::ioctl(handle(), FIONREAD, &available) == 0 && available < wanted &&
            m_wakesAt != wanted) {
            // Woken again with fewer bytes, the connection has ended or the kernel has no room.
            wakeAt(wanted);
            noteIncomplete();
            return false;
        }
        noteRequest();
        return true;
    }

    /// The socket counts as readable from this number of bytes on, and when it has ended.
    void wakeAt(int bytes)
    {
        if (m_wakesAt == bytes)
            return;
        m_wakesAt = bytes;
        (void)::setsockopt(handle(), SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes);
    }

    /// Waits until the socket is ready. Returns false at the limit, and logs it.
    bool waitFor(short events, const omni_time_t& deadline, const char* what)
    {
        const Wait wait(*this);
        const milliseconds limit = std::min(untilThen(deadline), m_table->waitLimit());
        pollfd socket{handle(), events, 0};
        const int ready = ::poll(&socket, 1, static_cast<int>(limit.count()));
        if (ready > 0 || (ready < 0 && errno == EINTR))
            return true;
        m_table->noteStalled(*this, what);
        return false;
    }

    /// The time until the ORB's deadline, which is by the clock of the day. The limit of a wait
    /// does not let a corrected clock make it longer.
    static milliseconds untilThen(const omni_time_t& deadline)
    {
        if (deadline.s == 0)
            return milliseconds::max();
        unsigned long seconds = 0;
        unsigned long nanoseconds = 0;
        omni_thread::get_time(&seconds, &nanoseconds);
        const std::int64_t left =
            (static_cast<std::int64_t>(deadline.s) - static_cast<std::int64_t>(seconds)) * 1000 +
            (static_cast<std::int64_t>(deadline.ns) - static_cast<std::int64_t>(nanoseconds)) /
                1000000;
        return milliseconds(std::max<std::int64_t>(left, 0));
    }

    const std::shared_ptr<ConnectionTable> m_table;
    std::atomic<bool> m_broken{false};
    std::atomic<bool> m_dataInBuffer{false};
    std::atomic<int> m_wakesAt{1};
};

/// Listens, and watches the connections that came in.
class TcpEndpoint final : public omni::tcpEndpoint
{
  public:
    TcpEndpoint(const char* address, std::shared_ptr<ConnectionTable> table)
        : tcpEndpoint(address), m_table(std::move(table))
    {
    }

    omni::giopConnection* AcceptAndMonitor(omni::giopConnection::notifyReadable_t notify,
                                           void* cookie) override
    {
        m_notify = notify;
        m_cookie = cookie;
        while (!m_poked) {
            if (m_accepted.empty()) {
                if (!m_isWatched) // each call wakes the collection, so not in each round
                    SocketHolder::setSelectable(1, false);
                m_isWatched = true;
                if (!Select())
                    return nullptr;
                continue;
            }
            auto* const connection = new TcpConnection(m_accepted.front(), this, m_table);
            m_accepted.pop_front();
            if (m_table->admit(static_cast<omni::SocketHolder*>(connection), *connection))
                return connection;
            connection->decrRefCount(true);
        }
        return nullptr;
    }

    void Poke() override
    {
        m_poked = true;
        tcpEndpoint::Poke();
    }

  protected:
    ~TcpEndpoint() override
    {
        for (const int socket : m_accepted)
            ::close(socket);
    }

    /// Another thread may destroy a connection while the collection reports it. So the table says
    /// whether it is still there, and keeps it meanwhile.
    CORBA::Boolean notifyReadable(omni::SocketHolder* holder) override
    {
        if (holder == static_cast<omni::SocketHolder*>(this))
            return acceptSome();
        m_table->with(holder, [this](WatchedConnection& watched) {
            auto& connection = static_cast<TcpConnection&>(watched);
            if (connection.isReady())
                m_notify(m_cookie, &connection);
        });
        return true;
    }

  private:
    /// Accepts some of the connections that wait. Each look at all sockets costs time, so one look
    /// for each connection would be slow. Returns false if the endpoint is gone.
    bool acceptSome()
    {
        m_isWatched = false; // the collection has reported it
        while (m_accepted.size() < ACCEPTED_AT_ONCE) {
            const int socket = ::accept4(SocketHolder::pd_socket, nullptr, nullptr, SOCK_CLOEXEC);
            if (socket >= 0) {
                m_accepted.push_back(socket);
            } else if (errno == EBADF) {
                return false;
            } else if (errno == EAGAIN) {
                break;
            } else if (errno != EINTR && errno != ECONNABORTED) {
                PLATFORM_WARN("Orb::accept",
                              "Unable to accept a connection: " << std::strerror(errno));
                // The caller tries again at once, which cannot help.
                std::this_thread::sleep_for(ACCEPT_PAUSE);
                break;
            }
        }
        return true;
    }

    const std::shared_ptr<ConnectionTable> m_table;
    omni::giopConnection::notifyReadable_t m_notify = nullptr;
    void* m_cookie = nullptr;
    std::deque<int> m_accepted; ///< sockets that have no connection yet
    bool m_isWatched = false;   ///< whether the collection watches the listening socket
    std::atomic<bool> m_poked{false};
};

/// Makes the endpoints of the scheme.
class Transport final : public omni::giopTransportImpl
{
  public:
    Transport() : giopTransportImpl(WATCHED_SCHEME) {}

    omni::giopEndpoint* toEndpoint(const char* address) override
    {
        return omni::omniURI::validHostPortRange(address) ? new TcpEndpoint(address, table)
                                                          : nullptr;
    }
    omni::giopAddress* toAddress(const char*) override { return nullptr; }
    CORBA::Boolean isValid(const char* address) override
    {
        return omni::omniURI::validHostPort(address);
    }
    CORBA::Boolean addToIOR(const char*, omni::IORPublish*) override { return false; }
    const omnivector<const char*>* getInterfaceAddress() override
    {
        return giopTransportImpl::getInterfaceAddress("giop:tcp");
    }

    std::shared_ptr<ConnectionTable> table;
};

} // namespace

void installWatchedTransport(std::shared_ptr<ConnectionTable> table)
{
    static Transport transport; // the ORB knows it until the process ends
    transport.table = std::move(table);
}

} // namespace Veltrane::Quillmark::Tlx
