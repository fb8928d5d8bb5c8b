#pragma once
// The comparison of wildcardcmp, which also counts its steps.

#include <cstdint>
#include <string_view>

namespace Veltrane::Quillmark::Tlx {

/// Whether the whole text matches the pattern; see Wildcard.h.
/// @param steps grows by the number of characters compared, so that a test can check the bound:
/// (pattern length + 1) * (text length + 1).
bool wildcardMatch(std::string_view pattern, std::string_view text, std::uint64_t& steps);

} // namespace Veltrane::Quillmark::Tlx
