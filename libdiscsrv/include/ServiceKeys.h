#pragma once
// The keys of the host configuration that the service library reads.

#include <array>

#include <tlx/ConfigKey.h>

namespace Veltrane::Quillmark::Tlx {

namespace ConfigKey {

/// FALSE: the service does not start.
inline constexpr DeclaredKey REPORT_CLIENT_DISCOVERIES =
    DeclaredKey::boolean("REPORT_CLIENT_DISCOVERIES");

// Bounds on what another host may send.
/// Records of one query.
inline constexpr DeclaredKey REMOTE_MAX_RECORDS =
    DeclaredKey::number("REMOTE_MAX_RECORDS", 1, 10000000, 1000000);
/// Bytes of one collection, or of the records of one query.
inline constexpr DeclaredKey REMOTE_MAX_BYTES =
    DeclaredKey::number("REMOTE_MAX_BYTES", 1024, std::uint64_t{1} << 30, 67108864);
/// Seconds for one collection, or for one query.
inline constexpr DeclaredKey REMOTE_MAX_SECONDS =
    DeclaredKey::number("REMOTE_MAX_SECONDS", 1, 86400, 600);

// The store.
/// Seconds that a request waits while another process locks a record.
inline constexpr DeclaredKey LOCK_WAIT_SECONDS =
    DeclaredKey::number("LOCK_WAIT_SECONDS", 1, 3600, 20);
/// Records whose metadata is kept in memory. 0: none.
inline constexpr DeclaredKey CACHED_RECORDS =
    DeclaredKey::number("CACHED_RECORDS", 0, 10000000, 500000);

} // namespace ConfigKey

namespace DiscoverySvc {

inline constexpr std::array SERVICE_KEYS{
    ConfigKey::REPORT_CLIENT_DISCOVERIES, ConfigKey::REMOTE_MAX_RECORDS,
    ConfigKey::REMOTE_MAX_BYTES,          ConfigKey::REMOTE_MAX_SECONDS,
    ConfigKey::LOCK_WAIT_SECONDS,         ConfigKey::CACHED_RECORDS};

} // namespace DiscoverySvc
} // namespace Veltrane::Quillmark::Tlx
