#pragma once
// What the ORB counts about the connections of other hosts.

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace Veltrane::Quillmark::Tlx {

/// The connections that other hosts opened to this process, for its status.
struct ConnectionCounts
{
    std::uint64_t open = 0;
    std::uint64_t highest = 0;   ///< the most that were open at the same time
    std::uint64_t refused = 0;   ///< closed at once, because there was no place
    std::uint64_t drivenOut = 0; ///< idle ones, closed to make place for others
    std::uint64_t leftIdle = 0;  ///< closed after IDLE_CONNECTION_SECONDS without a request
    std::uint64_t stalled = 0;   ///< closed because a message or the reading of a reply stalled
    std::uint64_t malformed = 0; ///< closed because the peer sent what no peer may send
    std::uint64_t plain = 0;     ///< without TLS, although this process has it
    /// Closed because the requests that had arrived took too much memory.
    std::uint64_t crowdedOut = 0;
    std::uint64_t requestsWaiting = 0;        ///< that wait for a thread now
    std::uint64_t requestsWaitingHighest = 0; ///< the most at the same time
};

/// How many connections beyond MAX_CONNECTIONS may be open for a moment. A connection that made
/// place for another one ends a moment later.
constexpr std::size_t connectionReserve(std::size_t maxConnections)
{
    return std::max<std::size_t>(maxConnections / 5, 64);
}

} // namespace Veltrane::Quillmark::Tlx
