#pragma once
// The keys of the host configuration that only the ORB reads.

#include <array>

#include <tlx/ConfigKey.h>

namespace Veltrane::Quillmark::Tlx {

namespace ConfigKey {

/// The largest GIOP message that is accepted.
inline constexpr DeclaredKey MAX_MESSAGE_BYTES =
    DeclaredKey::number("MAX_MESSAGE_BYTES", 65536, std::uint64_t{1} << 30, 8388608);

} // namespace ConfigKey

inline constexpr std::array ORB_KEYS{ConfigKey::MAX_MESSAGE_BYTES};

} // namespace Veltrane::Quillmark::Tlx
