#pragma once
// Compares texts with patterns.

namespace Veltrane::Quillmark::Tlx {

/// Compares the whole text with the pattern. "*" stands for any run of characters, "?" for exactly
/// one character of UTF-8. Everything else stands for itself, also "[" and "\", and case matters.
/// Takes at most pattern length times text length steps. A null pointer counts as an empty text.
///
/// @param flag reserved, 0.
/// @return 0 on a match, 1 otherwise.
int wildcardcmp(const char* pattern, const char* text, int flag);

} // namespace Veltrane::Quillmark::Tlx
