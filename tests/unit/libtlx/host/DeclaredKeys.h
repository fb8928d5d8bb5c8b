#pragma once
// The host configuration with keys as a component would declare them.

#include <array>
#include <string>

#include <tlx/HostConfig.h>

#include "support/Lines.h"

namespace Veltrane::Quillmark::Tlx {

namespace ConfigKey {

inline constexpr DeclaredKey LOG_LEVEL =
    DeclaredKey::number("LOG_LEVEL", 0, 9, 1).takenWhileRunning();
inline constexpr DeclaredKey LOG_KEEP = DeclaredKey::number("LOG_KEEP", 1, 100, 5);
inline constexpr DeclaredKey REPORT_CLIENT_DISCOVERIES =
    DeclaredKey::boolean("REPORT_CLIENT_DISCOVERIES");
inline constexpr DeclaredKey COLOUR = DeclaredKey::text(
    "COLOUR", [](const std::string& value) { return value == "red" || value == "blue"; },
    "is no colour, expected for instance red");

} // namespace ConfigKey

inline constexpr std::array KEYS{ConfigKey::LOG_LEVEL, ConfigKey::LOG_KEEP,
                                 ConfigKey::REPORT_CLIENT_DISCOVERIES, ConfigKey::COLOUR};

inline HostConfig& config()
{
    HostConfig& theConfig = HostConfig::instance();
    theConfig.declare(KEYS);
    return theConfig;
}

inline QmTest::Lines problems()
{
    QmTest::Lines lines;
    for (const HostConfig::Problem& problem : config().problems())
        lines.push_back(problem.toText());
    return lines;
}

/// The problems of a text.
inline QmTest::Lines problemsOf(const std::string& text)
{
    config().readText(text, "qm.conf");
    return problems();
}

} // namespace Veltrane::Quillmark::Tlx
