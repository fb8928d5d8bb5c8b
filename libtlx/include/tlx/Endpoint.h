#pragma once
// Hosts and endpoints as text.

#include <cstdint>
#include <optional>
#include <string>

namespace Veltrane::Quillmark::Tlx {

/// An address and a port. Written "ADDRESS:PORT", an IPv6 address in square brackets.
struct Endpoint
{
    std::string address;
    std::uint16_t port = 0;
    friend bool operator==(const Endpoint&, const Endpoint&) = default;
};
/// Absent if the text is not an endpoint.
[[nodiscard]] std::optional<Endpoint> parseEndpoint(const std::string& text);
std::string toText(const Endpoint& endpoint);

/// Whether text is a host name or an address. An IPv6 address has no brackets here.
bool isHost(const std::string& text);

} // namespace Veltrane::Quillmark::Tlx
