#pragma once
// Numbers out of text.

#include <charconv>
#include <concepts>
#include <optional>
#include <string_view>
#include <system_error>

namespace Veltrane::Quillmark::Tlx {

/// The decimal number that the whole text is: digits alone, for a signed type with a "-" before
/// them. Nothing for any other text (blanks and "+" included) and for a number out of the type's
/// range.
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
