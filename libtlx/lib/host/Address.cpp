#include <tlx/Address.h>

#include <algorithm>
#include <cstring>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <tlx/Number.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr unsigned ALL_BITS = 128;
constexpr unsigned V4_PREFIX_BITS = 96; // of a mapped address
constexpr std::size_t V4_PREFIX_BYTES = V4_PREFIX_BITS / 8;

NumericAddress fromV4(const in_addr& address)
{
    NumericAddress::Bytes bytes{};
    bytes[10] = bytes[11] = 0xff;
    std::memcpy(&bytes[V4_PREFIX_BYTES], &address, sizeof address);
    return NumericAddress(bytes);
}

NumericAddress fromV6(const in6_addr& address)
{
    NumericAddress::Bytes bytes{};
    std::memcpy(bytes.data(), &address, sizeof address);
    return NumericAddress(bytes);
}

/// Whether two addresses have the same first bits.
bool startAlike(const NumericAddress& a, const NumericAddress& b, unsigned bits)
{
    const std::size_t whole = bits / 8;
    if (!std::equal(a.bytes().begin(), a.bytes().begin() + whole, b.bytes().begin()))
        return false;
    const unsigned rest = bits % 8;
    return rest == 0 || ((a.bytes()[whole] ^ b.bytes()[whole]) >> (8 - rest)) == 0;
}

/// The address with zeros behind its first bits.
NumericAddress firstOf(const NumericAddress& address, unsigned bits)
{
    NumericAddress::Bytes bytes = address.bytes();
    for (unsigned bit = bits; bit < ALL_BITS; ++bit)
        bytes[bit / 8] = static_cast<std::uint8_t>(bytes[bit / 8] & ~(0x80u >> (bit % 8)));
    return NumericAddress(bytes);
}

} // namespace

std::optional<NumericAddress> NumericAddress::parse(const std::string& text)
{
    // inet_pton stops at a NUL byte, and would accept the text before it.
    if (text.find('\0') != std::string::npos)
        return std::nullopt;
    in_addr v4 = {};
    if (::inet_pton(AF_INET, text.c_str(), &v4) == 1)
        return fromV4(v4);
    in6_addr v6 = {};
    if (::inet_pton(AF_INET6, text.substr(0, text.find('%')).c_str(), &v6) == 1)
        return fromV6(v6);
    return std::nullopt;
}

bool NumericAddress::isV4() const
{
    return std::all_of(m_bytes.begin(), m_bytes.begin() + 10, [](auto b) { return b == 0; }) &&
           m_bytes[10] == 0xff && m_bytes[11] == 0xff;
}

bool NumericAddress::isLoopback() const
{
    if (isV4())
        return m_bytes[V4_PREFIX_BYTES] == 127;
    return std::all_of(m_bytes.begin(), m_bytes.end() - 1, [](auto b) { return b == 0; }) &&
           m_bytes.back() == 1;
}

std::optional<AddressRange> AddressRange::parse(const std::string& text)
{
    const std::size_t slash = text.find('/');
    const std::string written = text.substr(0, slash);
    const auto address = NumericAddress::parse(written);
    if (!address || written.find('%') != std::string::npos)
        return std::nullopt;
    if (slash == std::string::npos)
        return AddressRange(*address, ALL_BITS);
    // "::ffff:192.0.2.0/120" counts all bits, "192.0.2.0/24" those of IPv4.
    const unsigned before = written.find(':') == std::string::npos ? V4_PREFIX_BITS : 0;
    const auto bits = parseNumber<unsigned>(std::string_view(text).substr(slash + 1));
    if (!bits || *bits > ALL_BITS - before || firstOf(*address, before + *bits) != *address)
        return std::nullopt;
    return AddressRange(*address, before + *bits);
}

bool AddressRange::contains(const NumericAddress& address) const
{
    return address.isV4() == (m_first.isV4() && m_bits >= V4_PREFIX_BITS) &&
           startAlike(address, m_first, m_bits);
}

std::vector<NumericAddress> interfaceAddresses()
{
    std::vector<NumericAddress> result;
    ifaddrs* interfaces = nullptr;
    if (::getifaddrs(&interfaces) != 0)
        return result;
    for (const ifaddrs* each = interfaces; each; each = each->ifa_next) {
        if (!each->ifa_addr)
            continue;
        if (each->ifa_addr->sa_family == AF_INET) {
            sockaddr_in v4 = {};
            std::memcpy(&v4, each->ifa_addr, sizeof v4);
            result.push_back(fromV4(v4.sin_addr));
        } else if (each->ifa_addr->sa_family == AF_INET6) {
            sockaddr_in6 v6 = {};
            std::memcpy(&v6, each->ifa_addr, sizeof v6);
            result.push_back(fromV6(v6.sin6_addr));
        }
    }
    ::freeifaddrs(interfaces);
    std::sort(result.begin(), result.end());
    result.erase(std::unique(result.begin(), result.end()), result.end());
    return result;
}

} // namespace Veltrane::Quillmark::Tlx
