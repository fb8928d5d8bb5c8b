#include "ConnectionTable.h"

#include <algorithm>
#include <map>

#include "PlatformLog.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Orb";

using namespace std::chrono_literals;
using Clock = WatchedConnection::Clock;

/// Between two looks at all connections.
constexpr auto LOOK_INTERVAL = 250ms;
/// A shorter wait is normal: the rest of a message is on its way.
constexpr auto NORMAL_WAIT = 250ms;
/// How many connections of a peer are looked at for one that no thread serves. With more than 256
/// REQUEST_THREADS all of them may be served.
constexpr std::size_t IDLE_CANDIDATES = 256;
bool isOlder(Clock::rep since, Clock::time_point now, Clock::duration age)
{
    return since != 0 && now.time_since_epoch().count() - since >= age.count();
}

} // namespace

ConnectionTable::ConnectionTable(const ConnectionLimits& limits)
    : m_limits(limits), m_thread([this] { run(); })
{
}

ConnectionTable::~ConnectionTable()
{
    {
        const std::lock_guard guard(m_mutex);
        m_ended = true;
        m_wake.notify_all();
    }
    m_thread.join();
}

void ConnectionTable::changeSize(Peer& peer, std::size_t before)
{
    m_bySize.erase({before, &peer});
    if (!peer.connections.empty())
        m_bySize.insert({peer.connections.size(), &peer});
}

bool ConnectionTable::admit(Key key, WatchedConnection& connection)
{
    const std::lock_guard guard(m_mutex);
    const std::string& name = connection.peer();
    if (m_connections.size() >= m_limits.connections && !makePlaceFor(name)) {
        ++m_counts.refused;
        PLATFORM_WARN("Orb::accept", "Refused a connection of " << connection.address() << ": all "
                                                                << m_limits.connections
                                                                << " are taken");
        return false;
    }
    Peer& peer = m_peers[name];
    peer.name = name;
    const std::size_t before = peer.connections.size();
    connection.m_place = peer.connections.insert(peer.connections.end(), &connection);
    changeSize(peer, before);
    m_connections.emplace(key, &connection);
    m_counts.open = m_connections.size();
    m_counts.highest = std::max(m_counts.highest, m_counts.open);
    return true;
}

void ConnectionTable::remove(Key key, WatchedConnection& connection)
{
    std::unique_lock guard(m_mutex);
    m_unpinned.wait(guard, [&connection] { return connection.m_pins == 0; });
    if (m_connections.erase(key) == 0)
        return;
    m_keptBytes -= connection.m_keptBytes.exchange(0);
    const auto found = m_peers.find(connection.peer());
    Peer& peer = found->second;
    const std::size_t before = peer.connections.size();
    peer.connections.erase(connection.m_place);
    changeSize(peer, before);
    if (peer.connections.empty())
        m_peers.erase(found);
    m_counts.open = m_connections.size();
}

WatchedConnection* ConnectionTable::pin(Key key)
{
    const std::lock_guard guard(m_mutex);
    const auto found = m_connections.find(key);
    if (found == m_connections.end())
        return nullptr;
    ++found->second->m_pins;
    return found->second;
}

void ConnectionTable::unpin(WatchedConnection& connection)
{
    const std::lock_guard guard(m_mutex);
    if (--connection.m_pins == 0)
        m_unpinned.notify_all();
}

/// Closes a connection of the peer that has the most. That one leaves the table a moment later,
/// when its owner has noticed the end. Until then the table has more connections than its limit, up
/// to a reserve. A flood would fill the reserve, so a peer with many connections may use only half
/// of it.
bool ConnectionTable::makePlaceFor(const std::string& newcomer)
{
    const auto found = m_peers.find(newcomer);
    const std::size_t has = found == m_peers.end() ? 0 : found->second.connections.size();
    const bool hasFew = has * m_peers.size() <= m_limits.connections;
    const std::size_t room = connectionReserve(m_limits.connections);
    if (m_bySize.empty() ||
        m_connections.size() >= m_limits.connections + (hasFew ? room : room / 2))
        return false;
    Peer& peer = *m_bySize.rbegin()->second;
    WatchedConnection* const leastUsed = takeLeastUsed(peer);
    if (!leastUsed)
        return false;
    ++m_counts.drivenOut;
    PLATFORM_WARN("Orb::accept",
                  "All " << m_limits.connections
                         << " connections are taken. Closed one that no thread serves, of "
                         << peer.name << ", which has " << peer.connections.size());
    breakOff(*leastUsed);
    return true;
}

/// The connection that the peer has used least recently; null if it uses all. Looks at those in
/// front of the list, and moves them to the end. So the next call looks at others.
WatchedConnection* ConnectionTable::takeLeastUsed(Peer& peer)
{
    WatchedConnection* best = nullptr;
    const std::size_t candidates = std::min(peer.connections.size(), IDLE_CANDIDATES);
    for (std::size_t i = 0; i < candidates; ++i) {
        WatchedConnection* const each = peer.connections.front();
        peer.connections.splice(peer.connections.end(), peer.connections, peer.connections.begin());
        const bool isBusy = each->m_brokenOff || each->m_waits != 0 || each->m_isServed;
        if (!isBusy && (!best || each->m_lastUse < best->m_lastUse))
            best = each;
    }
    return best;
}

void ConnectionTable::noteClosed(std::uint64_t& counter, const WatchedConnection& connection,
                                 const char* what)
{
    ++counter;
    PLATFORM_WARN("Orb::receive",
                  "Closed a connection of " << connection.address() << ": " << what);
}

void ConnectionTable::noteStalled(const WatchedConnection& connection, const char* what)
{
    const std::lock_guard guard(m_mutex);
    noteClosed(m_counts.stalled, connection, what);
}

void ConnectionTable::noteMalformed(const WatchedConnection& connection, const char* what)
{
    const std::lock_guard guard(m_mutex);
    noteClosed(m_counts.malformed, connection, what);
}

void ConnectionTable::breakOff(WatchedConnection& connection)
{
    connection.m_brokenOff = true;
    connection.breakOff();
}

void ConnectionTable::look(Clock::time_point now)
{
    const std::lock_guard guard(m_mutex);
    std::vector<Waiting> waiting;
    for (const auto& [key, connection] : m_connections) {
        if (connection->m_brokenOff)
            continue;
        if (isOlder(connection->m_incompleteSince, now, m_limits.request)) {
            noteClosed(m_counts.stalled, *connection, connection->m_stall);
            breakOff(*connection);
        } else if (const Clock::rep since = connection->m_waitsSince;
                   isOlder(since, now, NORMAL_WAIT)) {
            waiting.push_back({since, connection});
        }
    }
    freeThreads(waiting);
}

void ConnectionTable::freeThreads(std::vector<Waiting>& waiting)
{
    std::sort(waiting.begin(), waiting.end(),
              [](const Waiting& left, const Waiting& right) { return left.since > right.since; });
    std::map<std::string, std::vector<WatchedConnection*>> byPeer; // the longest wait is the last
    for (const Waiting& each : waiting)
        byPeer[each.connection->peer()].push_back(each.connection);
    for (std::size_t threads = waiting.size(); threads > m_limits.threads / 2; --threads) {
        const auto most =
            std::max_element(byPeer.begin(), byPeer.end(), [](const auto& a, const auto& b) {
                return a.second.size() < b.second.size();
            });
        WatchedConnection& longest = *most->second.back();
        most->second.pop_back();
        noteClosed(m_counts.stalled, longest,
                   "stalled requests take half of the threads (REQUEST_THREADS)");
        breakOff(longest);
    }
}

void ConnectionTable::noteIdle(const WatchedConnection& connection)
{
    if (m_stopping)
        return;
    const std::lock_guard guard(m_mutex);
    ++m_counts.leftIdle;
    PLATFORM_LOG(LOG_LEVEL_PROGRESS, "Orb::receive",
                 "Closed an idle connection of " << connection.address()
                                                 << " (IDLE_CONNECTION_SECONDS)");
}

void ConnectionTable::notePlain(const WatchedConnection& connection)
{
    const std::lock_guard guard(m_mutex);
    ++m_counts.plain;
    const std::string& peer = connection.peer();
    if (m_plainPeers.contains(peer))
        return;
    if (m_plainPeers.size() >= MAX_PLAIN_PEERS)
        m_plainPeers.clear();
    m_plainPeers.insert(peer);
    PLATFORM_WARN("Orb::receive", "TLS does not protect the calls of "
                                      << connection.address()
                                      << " (TLS = on): the connection is plain");
}

void ConnectionTable::noteKept(WatchedConnection& connection, std::size_t bytes)
{
    if (bytes == connection.m_keptBytes)
        return;
    const std::size_t before = connection.m_keptBytes.exchange(bytes);
    const std::size_t all = m_keptBytes += bytes - before;
    if (bytes <= before || all <= m_limits.keptBytes)
        return;
    if (WatchedConnection* const largest = pinLargest()) {
        largest->discard();
        unpin(*largest);
    }
}

/// The connection that keeps the most bytes, of the peer that keeps the most. It counts as if it
/// kept none from now on.
WatchedConnection* ConnectionTable::pinLargest()
{
    const std::lock_guard guard(m_mutex);
    std::size_t most = 0;
    WatchedConnection* largest = nullptr;
    for (const auto& [name, peer] : m_peers) {
        std::size_t bytes = 0;
        WatchedConnection* candidate = nullptr;
        for (WatchedConnection* each : peer.connections) {
            bytes += each->m_keptBytes;
            if (!candidate || each->m_keptBytes > candidate->m_keptBytes)
                candidate = each;
        }
        if (bytes > most) {
            most = bytes;
            largest = candidate;
        }
    }
    if (!largest)
        return nullptr;
    ++m_counts.crowdedOut;
    PLATFORM_WARN("Orb::receive", "Requests that have arrived take all of "
                                      << m_limits.keptBytes
                                      << " bytes (MAX_ARRIVING_BYTES). Closed a connection of "
                                      << largest->address() << ", which took "
                                      << largest->m_keptBytes);
    m_keptBytes -= largest->m_keptBytes.exchange(0);
    largest->m_brokenOff = true;
    ++largest->m_pins;
    return largest;
}

std::chrono::milliseconds ConnectionTable::waitLimit() const
{
    return m_stopping ? std::min(m_limits.stopGrace, m_limits.request) : m_limits.request;
}

void ConnectionTable::stop()
{
    m_stopping = true;
    const auto end = Clock::now() + m_limits.stopGrace;
    const auto waits = [this] {
        const std::lock_guard guard(m_mutex);
        return std::any_of(m_connections.begin(), m_connections.end(),
                           [](const auto& each) { return each.second->m_waits != 0; });
    };
    while (waits()) {
        if (Clock::now() < end) {
            std::this_thread::sleep_for(10ms);
            continue;
        }
        m_mustHaveArrived = true;
        const std::lock_guard guard(m_mutex);
        for (const auto& [key, connection] : m_connections)
            if (connection->m_waits != 0)
                breakOff(*connection);
        return;
    }
}

ConnectionCounts ConnectionTable::counts() const
{
    const std::lock_guard guard(m_mutex);
    return m_counts;
}

void ConnectionTable::run()
{
    std::unique_lock lock(m_mutex);
    while (!m_wake.wait_for(lock, LOOK_INTERVAL, [this] { return m_ended; })) {
        lock.unlock();
        look(Clock::now());
        lock.lock();
    }
}

} // namespace Veltrane::Quillmark::Tlx
