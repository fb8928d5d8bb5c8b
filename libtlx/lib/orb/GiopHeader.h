#pragma once
// The header of a GIOP message, as this library reads it before the ORB does.

#include <cstddef>

namespace Veltrane::Quillmark::Tlx::Giop {

/// Each message, and each fragment, begins with so many bytes: "GIOP", the version, the flags, the
/// type, and the size of what follows.
constexpr std::size_t HEADER_BYTES = 12;
constexpr std::size_t FLAGS_AT = 6;
constexpr std::size_t TYPE_AT = 7;
constexpr std::size_t SIZE_AT = 8;

constexpr unsigned char LITTLE_ENDIAN_FLAG = 1;
constexpr unsigned char MORE_FRAGMENTS_FLAG = 2;

enum Type : unsigned char
{
    REQUEST = 0,
    CANCEL_REQUEST = 2,
    LOCATE_REQUEST = 3,
    CLOSE_CONNECTION = 5,
    FRAGMENT = 7
};

} // namespace Veltrane::Quillmark::Tlx::Giop
