#pragma once
// Values of the host configuration as text.

#include <optional>
#include <string>
#include <string_view>

namespace Veltrane::Quillmark::Tlx {

/// Absent if the text is not a boolean.
[[nodiscard]] std::optional<bool> parseBoolean(const std::string& text);

/// A value for a message: in quotes. A long value is cut after a whole character.
std::string quotedValue(std::string_view text);

} // namespace Veltrane::Quillmark::Tlx
