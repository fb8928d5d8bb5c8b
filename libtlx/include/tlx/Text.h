#pragma once
// Plain text: ASCII letters and blanks. The locale of the process does not matter.

#include <algorithm>
#include <concepts>
#include <string>
#include <string_view>

namespace Veltrane::Quillmark::Tlx {

/// Returns the small letter for a capital letter of A to Z, and any other character unchanged. It
/// works for every character type.
template <std::integral Character>
constexpr Character lowerCase(Character c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<Character>(c + ('a' - 'A')) : c;
}

/// A text with the capital letters A to Z made small.
inline std::string lowerCase(std::string_view text)
{
    std::string result(text);
    std::transform(text.begin(), text.end(), result.begin(), &lowerCase<char>);
    return result;
}

/// A text without the given blanks around it.
constexpr std::string_view trimmed(std::string_view text, std::string_view blanks = " \t\r\n")
{
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

} // namespace Veltrane::Quillmark::Tlx
