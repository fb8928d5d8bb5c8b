#pragma once
// The value of the key TLS.

#include <optional>
#include <string_view>

namespace Veltrane::Quillmark::Tlx {

enum class TlsMode
{
    OFF,     ///< plain connections only; the TLS library is not used
    ON,      ///< TLS if the peer has it. It protects from nobody who can change the traffic
    REQUIRED ///< TLS only, in both directions
};

/// Absent if the text is no mode.
constexpr std::optional<TlsMode> parseTlsMode(std::string_view text)
{
    if (text == "off")
        return TlsMode::OFF;
    if (text == "on")
        return TlsMode::ON;
    if (text == "required")
        return TlsMode::REQUIRED;
    return std::nullopt;
}

} // namespace Veltrane::Quillmark::Tlx
