#pragma once
// Which request gets a thread, when more have arrived than threads may serve.

#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace Veltrane::Quillmark::Tlx {

/// The requests that have arrived, and the turns in which threads serve them. A connection has one
/// request at a time. So the connection is absent, waits in a line, or has a turn.
///
/// The requests of one peer may have a share of the turns. Further ones wait in a line of this
/// peer. When a turn ends, the next one goes to the next peer with a line, round and round. So a
/// peer with thousands of requests does not keep those of others waiting.
///
/// Any thread may call the operations.
class RequestQueue
{
  public:
    using Key = std::uint64_t; ///< names a connection

    /// @param turns at the same time.
    /// @param share the turns that one peer may have at the same time.
    RequestQueue(std::size_t turns, std::size_t share) : m_most(turns), m_share(share) {}
    RequestQueue(const RequestQueue&) = delete;
    RequestQueue& operator=(const RequestQueue&) = delete;

    /// A request of an absent connection has arrived. Returns true if its turn begins now.
    /// Otherwise it waits in line.
    [[nodiscard]] bool arrive(Key connection, const std::string& peer);
    /// The same, but if no turn is free, an absent connection stays absent.
    [[nodiscard]] bool tryTurn(Key connection, const std::string& peer);
    /// The connection's turn ends, or it leaves the line. If a turn begins instead, returns the
    /// connection that has waited for it. Does nothing for an absent connection.
    [[nodiscard]] std::optional<Key> leave(Key connection, const std::string& peer);

    /// Whether more than half of the turns are free.
    bool isCalm() const;

    struct Counts
    {
        std::uint64_t waiting = 0; ///< now
        std::uint64_t highest = 0; ///< the most that waited at the same time
    };
    Counts counts() const;

  private:
    struct Peer
    {
        std::size_t turns = 0;
        std::list<Key> line;
    };
    using Peers = std::unordered_map<std::string, Peer>;

    bool hasRoom(const Peer& peer) const;
    void beginTurn(Peer& peer, Key connection);
    void leaveLine(Peers::iterator peer, std::list<Key>::iterator place);
    std::optional<Key> next();

    const std::size_t m_most;
    const std::size_t m_share;
    mutable std::mutex m_mutex; ///< for all below; a leaf
    Peers m_peers;              ///< those with a turn or a line
    std::unordered_set<Key> m_turns;
    std::unordered_map<Key, std::list<Key>::iterator> m_places; ///< in the lines
    std::list<std::string> m_lines; ///< the peers with a line; the first with room is next
    std::uint64_t m_highest = 0;
};

} // namespace Veltrane::Quillmark::Tlx
