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
};

/// Reads HOST, HOST:PORT, [IPV6]:PORT, [IPV6] or IPV6. False, with out unchanged, for anything
/// else.
bool parseHost(const std::string& text, HostArgument& out);

} // namespace Veltrane::Quillmark::Qmdiscoctl
