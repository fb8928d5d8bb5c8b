#pragma once
// Which characters a document can hold.

namespace Veltrane::Quillmark::Tlx {

/// Whether XML 1.0 can carry a character (its production "Char"). Surrogates need no test: they are
/// not characters of UTF-8.
inline bool isXmlCharacter(char32_t codePoint)
{
    if (codePoint < 0x20)
        return codePoint == '\t' || codePoint == '\n' || codePoint == '\r';
    return codePoint != 0xFFFE && codePoint != 0xFFFF;
}

} // namespace Veltrane::Quillmark::Tlx
