#pragma once
// How long a name may be.

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The longest name that another host may send: bytes of UTF-8, of a subject, an authority, a host
/// or a service. A pattern has the same bound. It is no key of the configuration, because names end
/// much earlier: the name of a record's file has at most 255 bytes.
constexpr std::size_t MAX_NAME_BYTES = 1024;

/// The longest display form of such a name: URI text writes some bytes as three.
constexpr std::size_t MAX_DISPLAY_NAME_BYTES = 3 * MAX_NAME_BYTES;

/// The part of a longer name that a log line shows.
constexpr std::size_t SHOWN_NAME_BYTES = 64;

/// The first SHOWN_NAME_BYTES of a name, without a character that would be cut.
constexpr std::string_view beginningOfName(std::string_view name)
{
    std::size_t end = std::min(SHOWN_NAME_BYTES, name.size());
    while (end > 0 && end < name.size() && (static_cast<unsigned char>(name[end]) & 0xC0u) == 0x80u)
        --end;
    return name.substr(0, end);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
