#pragma once
// The connections that other hosts have opened to this process, and their bounds.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <tlx/OrbCounts.h>

#include "WatchedConnection.h"

namespace Veltrane::Quillmark::Tlx {

/// How many plain peers the table remembers, so that each has one line in the log. Beyond it the
/// list starts anew.
constexpr std::size_t MAX_PLAIN_PEERS = 10000;

/// The limits of a ConnectionTable.
struct ConnectionLimits
{
    std::size_t connections;                   ///< all connections together
    std::size_t threads;                       ///< that serve requests
    std::chrono::milliseconds request;         ///< for the rest of a message that has begun
    std::size_t keptBytes;                     ///< that have arrived, and that no thread serves yet
    std::chrono::milliseconds stopGrace{1000}; ///< for a wait during the stop
};

/// Any thread may call the operations, except where a comment names one. A thread of its own looks
/// at the connections four times a second.
///
/// When a connection comes and all places are taken, the peer with the most connections loses the
/// one that it has used least recently. A connection that a thread serves stays. If there is no
/// other, the newcomer is refused. So a peer that opens thousands loses only its own ones.
///
/// Connections keep the bytes of requests that wait for their rest, or for a thread. When these are
/// too many, the peer with the most bytes loses the connection with the most.
///
/// Threads may wait for the rest of a message, or until a peer reads its reply. When connections
/// with such waits take more than half of the threads, the peer with the most of them loses the one
/// that has stalled for longest. So a peer that stalls cannot take all threads.
class ConnectionTable
{
  public:
    using Clock = WatchedConnection::Clock;
    using Key = std::uint64_t;

    /// @throws std::system_error if its thread cannot be started.
    explicit ConnectionTable(const ConnectionLimits& limits);
    ~ConnectionTable();
    ConnectionTable(const ConnectionTable&) = delete;
    ConnectionTable& operator=(const ConnectionTable&) = delete;

    /// Takes a new connection in, under a key that its owner chooses. Returns false if there is no
    /// place for it; then the owner closes it. The owner calls remove before the connection goes.
    [[nodiscard]] bool admit(Key key, WatchedConnection& connection);
    void remove(Key key, WatchedConnection& connection);

    /// Calls use(connection) if the key is in the table, without the table's mutex. The connection
    /// stays there meanwhile: remove waits. So use must not remove it.
    template <class Use>
    void with(Key key, Use&& use)
    {
        WatchedConnection* const connection = pin(key);
        if (!connection)
            return;
        const auto unpinAtEnd = [this](WatchedConnection* pinned) { unpin(*pinned); };
        const std::unique_ptr<WatchedConnection, decltype(unpinAtEnd)> pinned(connection,
                                                                              unpinAtEnd);
        use(*connection);
    }

    /// A wait of a connection has ended at its limit, and its owner closes it. Logs and counts it.
    void noteStalled(const WatchedConnection& connection, const char* what);

    /// The peer sent what no peer may send, and its owner closes the connection. Logs and counts
    /// it.
    void noteMalformed(const WatchedConnection& connection, const char* what);
    /// The connection had no request for IDLE_CONNECTION_SECONDS, and its owner closes it. Logs and
    /// counts it, except during the stop.
    void noteIdle(const WatchedConnection& connection);
    /// The peer speaks without TLS, which TLS = on allows. Counts it, and logs each peer once.
    void notePlain(const WatchedConnection& connection);
    /// How many bytes the connection keeps now. May discard this or another connection. The caller
    /// holds no lock that discard takes.
    void noteKept(WatchedConnection& connection, std::size_t bytes);

    /// The service stops. Gives the waits that are in progress a moment, then breaks off those
    /// that are left. Later waits get the same moment.
    void stop();
    bool isStopping() const { return m_stopping; }
    /// How long a wait may last now.
    std::chrono::milliseconds waitLimit() const;
    /// Whether the moment for requests that arrive during the stop is over.
    bool mustHaveArrived() const { return m_mustHaveArrived; }

    ConnectionCounts counts() const;

    /// Looks at all connections. The table's thread calls it, and tests.
    void look(Clock::time_point now);

  private:
    struct Peer
    {
        std::string name;
        std::list<WatchedConnection*>
            connections; ///< first those that nobody looked at for longest
    };
    struct Waiting
    {
        Clock::rep since;
        WatchedConnection* connection;
    };
    using BySize = std::set<std::pair<std::size_t, Peer*>>;

    WatchedConnection* pin(Key key);
    void unpin(WatchedConnection& connection);
    WatchedConnection* pinLargest();
    bool makePlaceFor(const std::string& newcomer);
    WatchedConnection* takeLeastUsed(Peer& peer);
    void breakOff(WatchedConnection& connection);
    void noteClosed(std::uint64_t& counter, const WatchedConnection& connection, const char* what);
    void changeSize(Peer& peer, std::size_t before);
    void freeThreads(std::vector<Waiting>& waiting);
    void run();

    const ConnectionLimits m_limits;
    mutable std::mutex m_mutex; ///< for all below; a leaf
    std::unordered_map<Key, WatchedConnection*> m_connections;
    std::unordered_map<std::string, Peer> m_peers;
    BySize m_bySize;
    std::set<std::string> m_plainPeers; ///< those that the log has named
    ConnectionCounts m_counts;
    std::atomic<std::size_t> m_keptBytes{0};
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_mustHaveArrived{false};
    bool m_ended = false;
    std::condition_variable m_wake;
    std::condition_variable m_unpinned;
    std::thread m_thread; ///< last, because it uses all members above
};

} // namespace Veltrane::Quillmark::Tlx
