#include "RequestQueue.h"

#include <algorithm>

namespace Veltrane::Quillmark::Tlx {

bool RequestQueue::hasRoom(const Peer& peer) const
{
    return m_turns.size() < m_most && peer.turns < m_share;
}

/// A peer with room has no line, because each turn that ends goes to a line whose peer has room.
bool RequestQueue::tryTurn(Key connection, const std::string& name)
{
    const std::lock_guard guard(m_mutex);
    const auto known = m_peers.find(name);
    if (!hasRoom(known == m_peers.end() ? Peer() : known->second))
        return false;
    beginTurn(m_peers[name], connection);
    return true;
}

bool RequestQueue::arrive(Key connection, const std::string& name)
{
    const std::lock_guard guard(m_mutex);
    Peer& peer = m_peers[name];
    if (hasRoom(peer)) {
        beginTurn(peer, connection);
        return true;
    }
    if (peer.line.empty())
        m_lines.push_back(name);
    m_places.emplace(connection, peer.line.insert(peer.line.end(), connection));
    m_highest = std::max<std::uint64_t>(m_highest, m_places.size());
    return false;
}

std::optional<RequestQueue::Key> RequestQueue::leave(Key connection, const std::string& name)
{
    const std::lock_guard guard(m_mutex);
    const auto peer = m_peers.find(name);
    if (m_turns.erase(connection) != 0)
        --peer->second.turns;
    else if (const auto place = m_places.find(connection); place != m_places.end())
        leaveLine(peer, place->second);
    else
        return std::nullopt;
    const auto result = next();
    if (peer->second.turns == 0 && peer->second.line.empty())
        m_peers.erase(peer);
    return result;
}

std::optional<RequestQueue::Key> RequestQueue::next()
{
    for (auto each = m_lines.begin(); each != m_lines.end(); ++each) {
        const auto peer = m_peers.find(*each);
        if (!hasRoom(peer->second))
            continue;
        m_lines.splice(m_lines.end(), m_lines, each);
        const Key connection = peer->second.line.front();
        leaveLine(peer, peer->second.line.begin());
        beginTurn(peer->second, connection);
        return connection;
    }
    return std::nullopt;
}

void RequestQueue::beginTurn(Peer& peer, Key connection)
{
    m_turns.insert(connection);
    ++peer.turns;
}

void RequestQueue::leaveLine(Peers::iterator peer, std::list<Key>::iterator place)
{
    m_places.erase(*place);
    peer->second.line.erase(place);
    if (peer->second.line.empty())
        m_lines.remove(peer->first);
}

bool RequestQueue::isCalm() const
{
    const std::lock_guard guard(m_mutex);
    return m_turns.size() < m_most / 2;
}

RequestQueue::Counts RequestQueue::counts() const
{
    const std::lock_guard guard(m_mutex);
    return {m_places.size(), m_highest};
}

} // namespace Veltrane::Quillmark::Tlx
