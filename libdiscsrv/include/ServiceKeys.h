#pragma once
// The keys of the host configuration that the service library reads.

#include <array>

#include <tlx/ConfigKey.h>

namespace Veltrane::Quillmark::Tlx {

namespace ConfigKey {

/// False keeps the service from starting.
inline constexpr DeclaredKey REPORT_CLIENT_DISCOVERIES =
    DeclaredKey::boolean("REPORT_CLIENT_DISCOVERIES");

// What another host may send.
/// Records of one query.
inline constexpr DeclaredKey REMOTE_MAX_RECORDS =
    DeclaredKey::number("REMOTE_MAX_RECORDS", 1, 10000000, 1000000);
/// Bytes of one collection, or of the records of one query.
inline constexpr DeclaredKey REMOTE_MAX_BYTES =
    DeclaredKey::number("REMOTE_MAX_BYTES", 1024, std::uint64_t{1} << 30, 67108864);
/// Seconds for either of them.
inline constexpr DeclaredKey REMOTE_MAX_SECONDS =
    DeclaredKey::number("REMOTE_MAX_SECONDS", 1, 86400, 600);

} // namespace ConfigKey

namespace DiscoverySvc {

inline constexpr std::array SERVICE_KEYS{ConfigKey::REPORT_CLIENT_DISCOVERIES,
                                         ConfigKey::REMOTE_MAX_RECORDS, ConfigKey::REMOTE_MAX_BYTES,
                                         ConfigKey::REMOTE_MAX_SECONDS};

} // namespace DiscoverySvc
} // namespace Veltrane::Quillmark::Tlx
