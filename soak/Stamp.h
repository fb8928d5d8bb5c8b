#pragma once
// What the payloads of the soak contain, so that a reader can check them.
//
// A payload is empty, or it begins with one line: NAME GENERATION SIZE CHECKSUM. SIZE is the number
// of all bytes, CHECKSUM the CRC-32 of all bytes after the line, in hexadecimal. The driver checks
// the same stamp with code of its own.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Veltrane::Quillmark::Soak {

/// One version of a record.
struct Version
{
    std::uint64_t generation = 0; ///< 0 for an empty payload, which does not state it
    std::size_t size = 0;
};

/// A payload with fewer bytes is empty.
constexpr std::size_t SMALLEST_STAMP = 128;

/// The payload of a version. The bytes after the stamp differ from version to version. The size is
/// 0, or at least SMALLEST_STAMP.
std::string makePayload(const std::string& name, const Version& version);

/// The version in a payload. Returns nothing if the payload is torn, mixed, or of another name.
std::optional<Version> checkPayload(const std::string& name, std::string_view payload);

} // namespace Veltrane::Quillmark::Soak
