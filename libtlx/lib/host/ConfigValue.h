#pragma once
// Values of the host configuration as text.

#include <string>
#include <string_view>

namespace Veltrane::Quillmark::Tlx {

/// False (and out unchanged) if the text is not a boolean.
bool parseBoolean(const std::string& text, bool& out);

/// A value for a message: in quotes. A long value is cut after a whole character.
std::string quotedValue(std::string_view text);

} // namespace Veltrane::Quillmark::Tlx
