#pragma once
// Prepares text from other sources for a terminal.

#include <string>
#include <string_view>
#include <vector>

namespace Veltrane::Quillmark::Qmdiscoctl {

/// The text with everything escaped that could mislead a terminal or a reader. These are the
/// deceptive characters of tlx/Character.h (\n, \x1b, \u202e), bytes that are not UTF-8 (\xff), and
/// the backslash itself (\\).
std::string escaped(std::string_view text);

/// How many columns the text takes on a terminal.
std::size_t displayWidth(std::string_view text);

/// "0 bytes", "1 byte", "1023 bytes".
std::string bytesText(unsigned long long bytes);
/// "1023 B", "1.5 KiB", "2.0 MiB": short, not exact.
std::string shortBytesText(double bytes);

/// Rows as columns with two blanks between them. Each cell is escaped; an empty cell shows as "-".
/// All rows have the same number of cells. A very long cell does not widen its column.
std::string formatTable(const std::vector<std::vector<std::string>>& rows);

} // namespace Veltrane::Quillmark::Qmdiscoctl
