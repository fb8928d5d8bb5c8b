#pragma once
// The value of --host.

#include <cstdint>
#include <optional>
#include <string>

namespace Veltrane::Quillmark::Qmdiscoctl {

struct HostArgument
{
    std::string host; ///< an IPv6 address without its brackets
    std::optional<std::uint16_t> port;
    friend bool operator==(const HostArgument&, const HostArgument&) = default;
};

/// Reads HOST, HOST:PORT, [IPV6]:PORT, [IPV6] or IPV6. Absent for anything else.
[[nodiscard]] std::optional<HostArgument> parseHost(const std::string& text);

} // namespace Veltrane::Quillmark::Qmdiscoctl
