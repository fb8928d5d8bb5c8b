#pragma once
// The comparison behind wildcardcmp, with its cost made visible.

#include <cstdint>
#include <string_view>

namespace Veltrane::Quillmark::Tlx {

/// Whether the whole text matches pattern, as Wildcard.h says. Adds to steps the number of
/// characters looked at, so that a test can hold the bound: never more than (pattern length + 1) *
/// (text length
/// + 1).
bool wildcardMatch(std::string_view pattern, std::string_view text, std::uint64_t& steps);

} // namespace Veltrane::Quillmark::Tlx
