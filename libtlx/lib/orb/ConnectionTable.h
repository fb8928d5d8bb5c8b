#pragma once
// The connections that other hosts have opened to this process, and their bounds.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <tlx/OrbCounts.h>

#include "RequestPeerState.h"

namespace Veltrane::Quillmark::Tlx {

class ConnectionTable;

/// One connection from another host. The table knows it from admit to remove. Its own threads note
/// here what they wait for.
class WatchedConnection
{
  public:
    using Clock = std::chrono::steady_clock;

    /// @param address the peer's numeric address, without the port.
    explicit WatchedConnection(std::string address);
    virtual ~WatchedConnection() = default;
    WatchedConnection(const WatchedConnection&) = delete;
    WatchedConnection& operator=(const WatchedConnection&) = delete;

    const std::string& address() const { return m_address; }
    /// Null before admit.
    const std::shared_ptr<ConnectionThreads>& threads() const { return m_threads; }

    /// Ends the connection, so that a thread which waits in it returns at once. Any thread, any
    /// number of times. It takes no lock and does not wait.
    virtual void breakOff() = 0;

    /// A thread waits for bytes of a message, or for room for a reply, while this object lives.
    class Wait
    {
      public:
        explicit Wait(WatchedConnection& connection);
        ~Wait();
        Wait(const Wait&) = delete;
        Wait& operator=(const Wait&) = delete;

      private:
        WatchedConnection& m_connection;
    };

    /// The beginning of a message has arrived, and no thread waits for the rest.
    void noteIncomplete();
    /// A whole message has arrived. A thread will serve it.
    void noteRequest();
    /// This thread serves a request of this connection. Returns false if the peer has its share of
    /// the threads; it logs that.
    [[nodiscard]] virtual bool beginRequest() = 0;

  private:
    friend class ConnectionTable;

    const std::string m_address;
    std::shared_ptr<ConnectionThreads> m_threads;
    // Moments are ticks of Clock. 0: there is none.
    std::atomic<Clock::rep> m_waitsSince{0};
    std::atomic<Clock::rep> m_incompleteSince{0};
    std::atomic<Clock::rep> m_lastUse;
    std::atomic<unsigned> m_waits{0}; ///< a request and a reply may wait at the same time
    bool m_brokenOff = false;         ///< of the table
    unsigned m_pins = 0;              ///< of the table
    std::list<WatchedConnection*>::iterator m_place;
};

/// The limits of a ConnectionTable.
struct ConnectionLimits
{
    std::size_t connections;                   ///< all connections together
    std::size_t threads;                       ///< that serve requests
    std::chrono::milliseconds request;         ///< for the rest of a message that has begun
    std::chrono::milliseconds stopGrace{1000}; ///< for a wait during the stop
};

/// Any thread may call the operations, except where a comment names one. A thread of its own looks
/// at the connections four times a second.
///
/// When a connection comes and all places are taken, the peer with the most connections loses the
/// one that it has left idle for long. So a peer that opens thousands drives out its own ones only.
///
/// The requests of one peer may take three quarters of the threads. Further ones are refused.
///
/// Threads may wait for the rest of a message, or until a peer reads its reply. When connections
/// with such waits take more than half of the threads, the peer with the most threads loses the
/// one that waits for longest. So a peer that stalls cannot take all threads.
class ConnectionTable
{
  public:
    using Clock = WatchedConnection::Clock;

    /// @throws std::system_error if its thread cannot be started.
    explicit ConnectionTable(const ConnectionLimits& limits);
    ~ConnectionTable();
    ConnectionTable(const ConnectionTable&) = delete;
    ConnectionTable& operator=(const ConnectionTable&) = delete;

    const ConnectionLimits& limits() const { return m_limits; }

    /// Takes a new connection in, under a key that its owner chooses. Returns false if there is no
    /// place for it; then the owner closes it. The owner calls remove before the connection goes.
    [[nodiscard]] bool admit(const void* key, WatchedConnection& connection);
    void remove(const void* key, WatchedConnection& connection);

    /// Calls use(connection) if the key is in the table, without the table's mutex. The connection
    /// stays there meanwhile: remove waits. So use must not remove it.
    template <class Use>
    void with(const void* key, Use&& use)
    {
        if (WatchedConnection* const connection = pin(key)) {
            use(*connection);
            unpin(*connection);
        }
    }

    /// A wait of a connection has ended at its limit, and its owner closes it. Logs and counts it.
    void noteStalled(const WatchedConnection& connection, const char* what);

    /// A request of a peer that has all its threads was refused. Logs and counts it.
    void noteRefused(const WatchedConnection& connection);

    /// The service stops. Gives the waits that are in progress a moment, then breaks off those
    /// that are left. Later waits get the same moment.
    void stop();
    /// How long a wait may last now.
    std::chrono::milliseconds waitLimit() const;

    ConnectionCounts counts() const;

    /// Looks at all connections. The table's thread calls it, and tests.
    void look(Clock::time_point now);

  private:
    struct Peer
    {
        std::string name;
        std::list<WatchedConnection*> connections; ///< the one that came first is in front
        std::shared_ptr<PeerThreads> threads;
    };
    using BySize = std::set<std::pair<std::size_t, Peer*>>;

    WatchedConnection* pin(const void* key);
    void unpin(WatchedConnection& connection);
    bool makePlaceFor(const std::string& newcomer);
    WatchedConnection* longestIdle(Peer& peer);
    void breakOff(WatchedConnection& connection);
    void countStalled(const WatchedConnection& connection, const char* what);
    void changeSize(Peer& peer, std::size_t before);
    void freeThreads(std::vector<WatchedConnection*>& waiting);
    void run();

    const ConnectionLimits m_limits;
    mutable std::mutex m_mutex; ///< for all below; a leaf
    std::unordered_map<const void*, WatchedConnection*> m_connections;
    std::unordered_map<std::string, Peer> m_peers;
    BySize m_bySize;
    ConnectionCounts m_counts;
    std::atomic<bool> m_stopping{false};
    bool m_ended = false;
    std::condition_variable m_wake;
    std::condition_variable m_unpinned;
    std::thread m_thread; ///< last, because it uses all members above
};

/// How many connections beyond its limit the table may have for a moment, until those that it
/// closed are gone.
std::size_t roomBeyond(std::size_t connections);

/// Connections of one network count as one peer: an IPv6 host chooses among 2^64 addresses of its
/// network. Returns the address itself for IPv4.
std::string peerOfAddress(const std::string& address);

} // namespace Veltrane::Quillmark::Tlx
