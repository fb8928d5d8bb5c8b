#pragma once
// Numeric addresses and ranges of them.

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Veltrane::Quillmark::Tlx {

/// A numeric address; a value type. An IPv4 address equals its form inside IPv6
/// ("::ffff:192.0.2.7").
class NumericAddress
{
  public:
    /// 16 bytes in network order, an IPv4 address mapped into IPv6.
    using Bytes = std::array<std::uint8_t, 16>;

    /// Absent if the text is no numeric address. A link-local address may have its interface behind
    /// "%", which the result does not keep.
    [[nodiscard]] static std::optional<NumericAddress> parse(const std::string& text);

    explicit NumericAddress(const Bytes& bytes) : m_bytes(bytes) {}
    const Bytes& bytes() const { return m_bytes; }
    bool isV4() const;
    bool isLoopback() const;

    friend auto operator<=>(const NumericAddress&, const NumericAddress&) = default;

  private:
    Bytes m_bytes;
};

/// The addresses with the same first bits; a value type.
class AddressRange
{
  public:
    /// Reads "ADDRESS" or "ADDRESS/BITS". Absent if the text is neither, if it has an interface, or
    /// if the address has bits behind the range's length: "192.0.2.7/24" could mean two things.
    [[nodiscard]] static std::optional<AddressRange> parse(const std::string& text);

    /// A range of IPv6 contains no IPv4 address, so "::/0" is all of IPv6 and nothing else.
    bool contains(const NumericAddress& address) const;

  private:
    AddressRange(const NumericAddress& first, unsigned bits) : m_first(first), m_bits(bits) {}

    NumericAddress m_first;
    unsigned m_bits; ///< of the 128 bits
};

/// The addresses of this machine's interfaces now, sorted. Empty if the system does not give them.
std::vector<NumericAddress> interfaceAddresses();

} // namespace Veltrane::Quillmark::Tlx
