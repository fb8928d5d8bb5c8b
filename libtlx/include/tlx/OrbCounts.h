#pragma once
// What the ORB counts about the connections of other hosts.

#include <cstdint>

namespace Veltrane::Quillmark::Tlx {

/// The connections that other hosts opened to this process, for its status.
struct ConnectionCounts
{
    std::uint64_t open = 0;
    std::uint64_t highest = 0;   ///< the most that were open at the same time
    std::uint64_t refused = 0;   ///< closed at once, because there was no place
    std::uint64_t drivenOut = 0; ///< idle ones, closed to make place for others
    std::uint64_t stalled = 0;   ///< closed because a message or the reading of a reply stalled
};

} // namespace Veltrane::Quillmark::Tlx
