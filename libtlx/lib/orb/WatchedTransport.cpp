#include "WatchedTransport.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include <sys/socket.h>

#include <tlx/Corba.h>

#include <omniORB4/giopEndpoint.h>
#include <omniORB4/internal/SocketCollection.h>
#include <omniORB4/omniURI.h>
#include <omniORB4/tcpEndpoint.h>

#include "PlatformLog.h"
#include "ServedConnection.h"
#include "Watcher.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Orb";

constexpr std::size_t ACCEPTED_AT_ONCE = 64;
constexpr std::chrono::milliseconds ACCEPT_PAUSE{20};

constexpr std::string_view PLAIN = "giop:tcp:";

/// The watcher reports the listening socket under this key. The connections have greater keys.
constexpr Watcher::Key LISTENING = 1;

/// Listens, and watches the connections that came in. The thread that calls AcceptAndMonitor is the
/// watching thread. Only this thread notifies the ORB.
class TcpEndpoint final : public omni::tcpEndpoint
{
  public:
    TcpEndpoint(const char* address, const ServerShared& shared)
        : tcpEndpoint(address), m_shared(shared), m_watcher(std::make_shared<Watcher>())
    {
    }

    omni::giopConnection* AcceptAndMonitor(omni::giopConnection::notifyReadable_t notify,
                                           void* cookie) override
    {
        if (!std::exchange(m_isWatched, true))
            watchListening();
        while (!m_isPoked) {
            if (auto* const connection = nextAccepted())
                return connection;
            for (const Watcher::Report& report : m_watcher->wait())
                if (report.key != LISTENING)
                    handle(report, notify, cookie);
                else if (!report.isPosted && !acceptSome())
                    return nullptr;
        }
        return nullptr;
    }

    /// The ORB's own endpoint publishes plain addresses. With TLS, references also carry the
    /// address for TLS, which is on the same port, or only that.
    CORBA::Boolean publish(const omni::orbServer::PublishSpecs& specs, CORBA::Boolean allSpecs,
                           CORBA::Boolean allEndpoints,
                           omni::orbServer::EndpointList& published) override
    {
        CORBA::Boolean isDone = false;
        if (!m_shared.requiresTls)
            isDone = tcpEndpoint::publish(specs, allSpecs, allEndpoints, published);
        if (!m_shared.tls || specs.length() == 0)
            return isDone;
        const std::string uri = tlsAddress(specs[0]);
        if (!giopEndpoint::addToIOR(uri.c_str()))
            return false;
        published.length(published.length() + 1);
        published[published.length() - 1] = uri.c_str();
        return true;
    }

    void Poke() override
    {
        m_isPoked = true;
        m_watcher->post(LISTENING);
    }

  protected:
    ~TcpEndpoint() override = default;

  private:
    /// The address that a rule for publishing means: "giop:tcp:ADDRESS:", or "addr" for the address
    /// of this endpoint.
    std::string tlsAddress(const char* rule)
    {
        CORBA::UShort port = 0;
        CORBA::String_var host = omni::omniURI::extractHostPort(address() + PLAIN.size(), port);
        if (std::string_view(rule).substr(0, PLAIN.size()) == PLAIN) {
            CORBA::UShort none = 0;
            host = omni::omniURI::extractHostPort(rule + PLAIN.size(), none, 0);
        }
        return CORBA::String_var(omni::omniURI::buildURI("giop:ssl", host, port)).in();
    }

    void watchListening()
    {
        m_watcher->watch(SocketHolder::pd_socket, LISTENING, Watcher::Event::INPUT);
    }

    /// The ORB's threads destroy connections at any time. The table knows whether this one is still
    /// there, and keeps it meanwhile.
    void handle(const Watcher::Report& report, omni::giopConnection::notifyReadable_t notify,
                void* cookie)
    {
        m_shared.connections->with(report.key, [&](WatchedConnection& watched) {
            auto& connection = static_cast<ServedConnection&>(watched);
            if (connection.handle(report))
                notify(cookie, &connection);
        });
    }

    /// The next of the accepted connections for which there is a place.
    ServedConnection* nextAccepted()
    {
        while (!m_accepted.empty()) {
            auto* const connection = new ServedConnection(std::move(m_accepted.front()),
                                                          ++m_lastKey, m_shared, m_watcher);
            m_accepted.pop_front();
            if (connection->admit())
                return connection;
            connection->decrRefCount(true);
        }
        return nullptr;
    }

    /// Accepts some of the connections that wait. Returns false if the endpoint is gone.
    bool acceptSome()
    {
        while (m_accepted.size() < ACCEPTED_AT_ONCE) {
            const int socket =
                ::accept4(SocketHolder::pd_socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (socket >= 0) {
                m_accepted.emplace_back(socket);
            } else if (errno == EBADF) {
                return false;
            } else if (errno == EAGAIN) {
                break;
            } else if (errno != EINTR && errno != ECONNABORTED) {
                PLATFORM_WARN("Orb::accept",
                              "Unable to accept a connection: " << std::strerror(errno));
                // Another try at once cannot help.
                std::this_thread::sleep_for(ACCEPT_PAUSE);
                break;
            }
        }
        watchListening();
        return true;
    }

    const ServerShared m_shared;
    const std::shared_ptr<Watcher> m_watcher;
    Watcher::Key m_lastKey = LISTENING;
    std::deque<FileDescriptor> m_accepted; ///< sockets that have no connection yet
    bool m_isWatched = false;
    std::atomic<bool> m_isPoked{false};
};

/// Makes the endpoints of the scheme.
class Transport final : public omni::giopTransportImpl
{
  public:
    Transport() : giopTransportImpl(WATCHED_SCHEME) {}

    omni::giopEndpoint* toEndpoint(const char* address) override
    {
        return omni::omniURI::validHostPortRange(address) ? new TcpEndpoint(address, shared)
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

    ServerShared shared;
};

} // namespace

void installWatchedTransport(const ServerShared& shared)
{
    static Transport transport; // the ORB knows it until the process ends
    transport.shared = shared;
}

} // namespace Veltrane::Quillmark::Tlx
