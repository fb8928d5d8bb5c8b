#pragma once
// Shell-style wildcard comparison.

namespace Veltrane::Quillmark::Tlx {

/// Compares the whole text with pattern: "*" stands for any run of characters, "?" for exactly one
/// character (of UTF-8); all else, "[" and "\" included, stands for itself, and case matters. Takes
/// no more than pattern length times text length steps, whatever the pattern. Null pointers count
/// as empty texts.
///
/// @param flag reserved, 0.
/// @return 0 on a match, 1 otherwise.
int wildcardcmp(const char* pattern, const char* text, int flag);

} // namespace Veltrane::Quillmark::Tlx
