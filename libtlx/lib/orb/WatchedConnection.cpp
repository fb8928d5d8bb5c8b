#include "WatchedConnection.h"

#include <algorithm>
#include <utility>

#include "RequestPeerState.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

using Clock = WatchedConnection::Clock;

Clock::rep ticks(Clock::time_point moment)
{
    return std::max<Clock::rep>(moment.time_since_epoch().count(), 1);
}

} // namespace

WatchedConnection::WatchedConnection(std::string address)
    : m_address(std::move(address)), m_peer(peerOfAddress(m_address)),
      m_lastUse(ticks(Clock::now()))
{
}

WatchedConnection::Wait::Wait(WatchedConnection& connection) : m_connection(connection)
{
    m_connection.m_waits.fetch_add(1);
    if (m_connection.m_waitsSince == 0) {
        m_connection.m_moved = 0;
        m_connection.m_waitsSince = ticks(Clock::now());
    }
}

WatchedConnection::Wait::~Wait()
{
    m_connection.m_waits.fetch_sub(1);
}

void WatchedConnection::noteMoved(std::size_t bytes)
{
    if (m_waitsSince != 0 && (m_moved += bytes) >= PROGRESS_BYTES)
        m_waitsSince = 0;
}

void WatchedConnection::noteIncomplete(std::uint64_t what, const char* stall)
{
    if (what != m_incomplete)
        noteNothing();
    m_incomplete = what;
    m_stall = stall;
    if (m_incompleteSince == 0)
        m_incompleteSince = ticks(Clock::now() - Clock::duration(m_incompleteFor));
}

void WatchedConnection::noteNothing()
{
    m_incomplete = 0;
    m_incompleteFor = 0;
    m_incompleteSince = 0;
}

void WatchedConnection::noteArrived()
{
    const Clock::rep now = ticks(Clock::now());
    if (const Clock::rep since = m_incompleteSince.exchange(0))
        m_incompleteFor = now - since;
    m_lastUse = now;
}

} // namespace Veltrane::Quillmark::Tlx
