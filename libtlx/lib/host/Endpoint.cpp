#include <tlx/Endpoint.h>

#include <algorithm>

#include <arpa/inet.h>

#include <tlx/Number.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr std::size_t MAX_HOST_NAME = 255;

bool isNumericV4(const std::string& text)
{
    in_addr address = {};
    return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool isNumericV6(const std::string& text)
{
    in6_addr address = {};
    // inet_pton stops at a NUL byte, and would accept the text before it.
    return text.find('\0') == std::string::npos &&
           ::inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool isHostNameCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || (static_cast<unsigned char>(c) & 0x80) != 0;
}

/// A host name or an IPv4 address. A text of digits and dots must be an address.
bool isHostName(const std::string& text)
{
    if (text.empty() || text.size() > MAX_HOST_NAME || text.front() == '.' || text.front() == '-')
        return false;
    if (!std::all_of(text.begin(), text.end(), isHostNameCharacter))
        return false;
    if (text.find_first_not_of("0123456789.") == std::string::npos)
        return isNumericV4(text);
    return true;
}

} // namespace

bool isHost(const std::string& text)
{
    return isHostName(text) || isNumericV6(text);
}

std::optional<Endpoint> parseEndpoint(const std::string& text)
{
    const auto colon = text.rfind(':');
    if (colon == std::string::npos)
        return std::nullopt;
    std::string address = text.substr(0, colon);
    const auto port = parseNumber<std::uint16_t>(std::string_view(text).substr(colon + 1));
    if (!port)
        return std::nullopt;
    if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
        address = address.substr(1, address.size() - 2);
        if (!isNumericV6(address))
            return std::nullopt;
    } else if (!isHostName(address)) {
        return std::nullopt;
    }
    return Endpoint{address, *port};
}

std::string toText(const Endpoint& endpoint)
{
    const bool v6 = endpoint.address.find(':') != std::string::npos;
    return (v6 ? "[" + endpoint.address + "]" : endpoint.address) + ":" +
           std::to_string(endpoint.port);
}

} // namespace Veltrane::Quillmark::Tlx
