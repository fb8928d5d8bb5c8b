#pragma once
// The keys of the host configuration that only the ORB reads.

#include <array>

#include <tlx/ConfigKey.h>

namespace Veltrane::Quillmark::Tlx {

namespace ConfigKey {

/// The largest GIOP message that is accepted.
inline constexpr DeclaredKey MAX_MESSAGE_BYTES =
    DeclaredKey::number("MAX_MESSAGE_BYTES", 65536, std::uint64_t{1} << 30, 8388608);

// Bounds on the hosts that connect here.
/// Connections at the same time.
inline constexpr DeclaredKey MAX_CONNECTIONS =
    DeclaredKey::number("MAX_CONNECTIONS", 16, 1000000, 10000);
/// Threads that serve requests.
inline constexpr DeclaredKey REQUEST_THREADS = DeclaredKey::number("REQUEST_THREADS", 4, 4096, 128);
/// Seconds for the rest of a request that has begun, and for the reading of a reply.
inline constexpr DeclaredKey REQUEST_TIMEOUT = DeclaredKey::number("REQUEST_TIMEOUT", 1, 3600, 30);
/// Seconds after which a connection without a request is closed.
inline constexpr DeclaredKey IDLE_CONNECTION_SECONDS =
    DeclaredKey::number("IDLE_CONNECTION_SECONDS", 10, 86400, 180);

} // namespace ConfigKey

inline constexpr std::array ORB_KEYS{ConfigKey::MAX_MESSAGE_BYTES, ConfigKey::MAX_CONNECTIONS,
                                     ConfigKey::REQUEST_THREADS, ConfigKey::REQUEST_TIMEOUT,
                                     ConfigKey::IDLE_CONNECTION_SECONDS};

} // namespace Veltrane::Quillmark::Tlx
