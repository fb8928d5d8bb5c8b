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
/// Bytes of requests that wait for their rest, or for a thread.
inline constexpr DeclaredKey MAX_ARRIVING_BYTES = DeclaredKey::number(
    "MAX_ARRIVING_BYTES", std::uint64_t{1} << 20, std::uint64_t{1} << 40, std::uint64_t{1} << 26);
/// Seconds for the rest of a request that has begun, and for the reading of a reply.
inline constexpr DeclaredKey REQUEST_TIMEOUT = DeclaredKey::number("REQUEST_TIMEOUT", 1, 3600, 30);
/// Seconds after which a connection without a request is closed.
inline constexpr DeclaredKey IDLE_CONNECTION_SECONDS =
    DeclaredKey::number("IDLE_CONNECTION_SECONDS", 10, 86400, 180);

// TLS. A mistake stops the start, because the default would send everything in plain text.
/// Whether connections use TLS: off, on, required.
inline constexpr DeclaredKey TLS =
    DeclaredKey::text(
        "TLS",
        [](const std::string& value) {
            return value == "off" || value == "on" || value == "required";
        },
        "is no mode, expected off, on or required")
        .withoutDefault();
/// The file with this host's certificate.
inline constexpr DeclaredKey TLS_CERTIFICATE = DeclaredKey::file("TLS_CERTIFICATE");
/// The file with the certificate's key.
inline constexpr DeclaredKey TLS_KEY = DeclaredKey::file("TLS_KEY");
/// The file with the authorities whose certificates are accepted.
inline constexpr DeclaredKey TLS_CA = DeclaredKey::file("TLS_CA");

} // namespace ConfigKey

inline constexpr std::array ORB_KEYS{ConfigKey::MAX_MESSAGE_BYTES,
                                     ConfigKey::MAX_CONNECTIONS,
                                     ConfigKey::REQUEST_THREADS,
                                     ConfigKey::MAX_ARRIVING_BYTES,
                                     ConfigKey::REQUEST_TIMEOUT,
                                     ConfigKey::IDLE_CONNECTION_SECONDS,
                                     ConfigKey::TLS,
                                     ConfigKey::TLS_CERTIFICATE,
                                     ConfigKey::TLS_KEY,
                                     ConfigKey::TLS_CA};

} // namespace Veltrane::Quillmark::Tlx
