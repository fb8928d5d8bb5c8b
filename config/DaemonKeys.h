#pragma once
// The keys of the host configuration that the daemon reads. They are here because the command line
// needs them as well: it reports unknown keys.

#include <array>

#include <tlx/ConfigKey.h>
#include <tlx/Log.h>

namespace Veltrane::Quillmark {

namespace Tlx::ConfigKey {

/// From 0 (no line) to 9.
inline constexpr DeclaredKey LOG_LEVEL =
    DeclaredKey::number("LOG_LEVEL", 0, 9, 1).takenWhileRunning();
/// The lowest severity that is logged.
inline constexpr DeclaredKey LOG_SEVERITY =
    DeclaredKey::text(
        "LOG_SEVERITY",
        [](const std::string& value) { return severityFromText(value).has_value(); },
        "is no severity, expected error, warning, notice or debug")
        .takenWhileRunning();
/// How many lines one place in the code may log in a second; 0 for no limit.
inline constexpr DeclaredKey LOG_BURST =
    DeclaredKey::number("LOG_BURST", 0, 1000000, 20).takenWhileRunning();
/// The size of one log file.
inline constexpr DeclaredKey LOG_MAX_BYTES =
    DeclaredKey::number("LOG_MAX_BYTES", 4096, std::uint64_t{1} << 40, 10485760);
/// The size of one file of errors and warnings.
inline constexpr DeclaredKey LOG_ERRORS_MAX_BYTES =
    DeclaredKey::number("LOG_ERRORS_MAX_BYTES", 4096, std::uint64_t{1} << 40, 1048576);
/// The number of rotated files that are kept of each log.
inline constexpr DeclaredKey LOG_KEEP = DeclaredKey::number("LOG_KEEP", 0, 100, 5);
/// The time limit of an orderly stop, in seconds.
inline constexpr DeclaredKey STOP_LIMIT =
    DeclaredKey::number("STOP_LIMIT", 1, 3600, 60).takenWhileRunning();

} // namespace Tlx::ConfigKey

namespace Qmdisco {

inline constexpr std::array DAEMON_KEYS{
    Tlx::ConfigKey::LOG_LEVEL,     Tlx::ConfigKey::LOG_SEVERITY,         Tlx::ConfigKey::LOG_BURST,
    Tlx::ConfigKey::LOG_MAX_BYTES, Tlx::ConfigKey::LOG_ERRORS_MAX_BYTES, Tlx::ConfigKey::LOG_KEEP,
    Tlx::ConfigKey::STOP_LIMIT};

} // namespace Qmdisco
} // namespace Veltrane::Quillmark
