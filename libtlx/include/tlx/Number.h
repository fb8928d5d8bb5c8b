#pragma once
// Reads numbers from text.

#include <charconv>
#include <concepts>
#include <optional>
#include <string_view>
#include <system_error>

namespace Veltrane::Quillmark::Tlx {

/// Reads the whole text as a decimal number: only digits, and for a signed type a "-" before them.
/// Returns nothing for any other text, such as a text with blanks or "+". Returns nothing for a
/// number out of the type's range.
template <std::integral Number>
[[nodiscard]] std::optional<Number> parseNumber(std::string_view text)
{
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stopped != end)
        return std::nullopt;
    return number;
}

} // namespace Veltrane::Quillmark::Tlx
