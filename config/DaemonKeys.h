#pragma once
// The keys of the host configuration that the daemon reads. They stand here because the command
// line has to know them, too: it reports every other key of the file as unknown.

#include <array>

#include <tlx/ConfigKey.h>

namespace Veltrane::Quillmark {

namespace Tlx::ConfigKey {

/// 0 (nothing) to 9.
inline constexpr DeclaredKey LOG_LEVEL =
    DeclaredKey::number("LOG_LEVEL", 0, 9, 1).takenWhileRunning();
/// The size of one log file.
inline constexpr DeclaredKey LOG_MAX_BYTES =
    DeclaredKey::number("LOG_MAX_BYTES", 4096, std::uint64_t{1} << 40, 10485760);
/// How many rotated log files are kept.
inline constexpr DeclaredKey LOG_KEEP = DeclaredKey::number("LOG_KEEP", 0, 100, 5);
/// Seconds for an orderly stop.
inline constexpr DeclaredKey STOP_LIMIT =
    DeclaredKey::number("STOP_LIMIT", 1, 3600, 60).takenWhileRunning();

} // namespace Tlx::ConfigKey

namespace Qmdisco {

inline constexpr std::array DAEMON_KEYS{Tlx::ConfigKey::LOG_LEVEL, Tlx::ConfigKey::LOG_MAX_BYTES,
                                        Tlx::ConfigKey::LOG_KEEP, Tlx::ConfigKey::STOP_LIMIT};

} // namespace Qmdisco
} // namespace Veltrane::Quillmark
