#pragma once
// Reads and writes UTF-8. No function fails, for any bytes.

#include <cstddef>
#include <string>
#include <string_view>

namespace Veltrane::Quillmark::Tlx {

/// Replaces a character that cannot be read or written.
constexpr char32_t REPLACEMENT_CHARACTER = 0xFFFD;
constexpr std::string_view REPLACEMENT_UTF8 = "\xEF\xBF\xBD";

/// The first character of a text. @param codePoint receives its code point; may be null.
/// @return its length in bytes (1 to 4); 0 for an empty text and when the first byte begins no
/// valid character. Surrogates and overlong forms are not valid.
std::size_t utf8Character(std::string_view text, char32_t* codePoint = nullptr);

/// Whether the whole text is well-formed.
bool isUtf8(std::string_view text);

/// Appends a code point, which must not be a surrogate and not be above U+10FFFF.
void appendUtf8(std::string& text, char32_t codePoint);

} // namespace Veltrane::Quillmark::Tlx
