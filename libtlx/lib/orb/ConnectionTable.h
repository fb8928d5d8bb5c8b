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

namespace Veltrane::Quillmark::Tlx {

class ConnectionTable;

/// A message or a reply that moves fewer bytes than this while it waits makes no progress. So a
/// peer that sends a byte now and then counts as stalled.
constexpr std::size_t PROGRESS_BYTES = 16384;

/// How many plain peers the table remembers, so that each has one line in the log. Beyond it the
/// list starts anew.
constexpr std::size_t MAX_PLAIN_PEERS = 10000;

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

    /// Ends the connection, so that a thread which waits in it returns at once. Any thread, any
    /// number of times. It takes no lock and does not wait.
    virtual void breakOff() = 0;
    /// The same, and gives up the bytes that the connection keeps. It takes locks.
    virtual void discard() = 0;

    /// A thread waits for bytes of a message, or for room for a reply, while this object lives. The
    /// message or the reply counts as stalled from the first of its waits on, until noteMoved or
    /// noteWhole ends that.
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

    // One thread at a time calls the next three.

    /// Something has begun to arrive, and no thread waits for the rest. Its time goes on until
    /// noteArrived or noteNothing.
    /// @param what its number. It has one time, however often other messages arrive in between.
    /// @param stall says what happened if the rest does not come in time; it lives for ever.
    void noteIncomplete(std::uint64_t what, const char* stall);
    /// Nothing has begun to arrive.
    void noteNothing();
    /// A handshake or a message has arrived. While a thread serves the message, the time of an
    /// incomplete one stands still, because nobody reads its rest.
    void noteArrived();
    /// The thread that waits has moved so many bytes. After PROGRESS_BYTES the stall is over.
    void noteMoved(std::size_t bytes);
    /// The message has arrived, or the reply has gone.
    void noteWhole() { m_waitsSince.store(0, std::memory_order_relaxed); }
    /// Whether a thread serves a request of this connection. Such a connection is not idle.
    void noteServed(bool isServed) { m_isServed.store(isServed, std::memory_order_relaxed); }

  private:
    friend class ConnectionTable;

    const std::string m_address;
    std::atomic<std::size_t> m_keptBytes{0};
    // Moments, as ticks of Clock; 0 means never.
    std::atomic<Clock::rep> m_waitsSince{0};
    std::atomic<Clock::rep> m_incompleteSince{0};
    std::atomic<Clock::rep> m_lastUse;
    std::uint64_t m_incomplete = 0;       ///< what has begun
    Clock::rep m_incompleteFor = 0;       ///< its time before the last noteArrived
    std::atomic<const char*> m_stall{""}; ///< as noteIncomplete says
    std::atomic<std::size_t> m_moved{0};  ///< since m_waitsSince
    std::atomic<bool> m_isServed{false};
    std::atomic<unsigned> m_waits{0}; ///< a request and a reply may wait at the same time
    // With the table's mutex.
    bool m_brokenOff = false;
    unsigned m_pins = 0; ///< calls of `with` that use it now
    std::list<WatchedConnection*>::iterator m_place;
};

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
/// When a connection comes and all places are taken, the peer with the most connections loses one
/// that it has left idle for long. If it has none, the newcomer is refused. So a peer that opens
/// thousands loses only its own ones.
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
        if (WatchedConnection* const connection = pin(key)) {
            use(*connection);
            unpin(*connection);
        }
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
        std::list<WatchedConnection*> connections; ///< in the order of longestIdle
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
    WatchedConnection* longestIdle(Peer& peer);
    void breakOff(WatchedConnection& connection);
    void countStalled(const WatchedConnection& connection, const char* what);
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

/// How many connections beyond its limit the table may have for a moment, until those that it
/// closed are gone.
std::size_t roomBeyond(std::size_t connections);

/// Connections of one network count as one peer: an IPv6 host chooses among 2^64 addresses of its
/// network. Returns the address itself for IPv4.
std::string peerOfAddress(const std::string& address);

} // namespace Veltrane::Quillmark::Tlx
