#include "Text.h"

#include <algorithm>
#include <iterator>

#include <clocale>
#include <cwchar>

#include <fmt/format.h>

#include <tlx/Character.h>
#include <tlx/Utf8.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

std::string escape(char32_t c)
{
    switch (c) {
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    default:
        return c < 0x80 ? fmt::format("\\x{:02x}", static_cast<unsigned>(c))
                        : fmt::format("\\u{:04x}", static_cast<unsigned>(c));
    }
}

/// The width of a character. It does not depend on the locale of the process.
int columnsOf(char32_t c)
{
    static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (utf8 == nullptr)
        return 1;
    const locale_t before = ::uselocale(utf8);
    const int columns = ::wcwidth(static_cast<wchar_t>(c));
    ::uselocale(before);
    return columns < 0 ? 1 : columns;
}

} // namespace

std::string escaped(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        char32_t c = 0;
        const std::size_t length = Tlx::utf8Character(text, &c);
        if (length == 0) {
            result += fmt::format("\\x{:02x}", static_cast<unsigned char>(text.front()));
            text.remove_prefix(1);
            continue;
        }
        if (c == '\\')
            result += "\\\\";
        else if (Tlx::isDeceptive(c))
            result += escape(c);
        else
            result += text.substr(0, length);
        text.remove_prefix(length);
    }
    return result;
}

std::size_t displayWidth(std::string_view text)
{
    std::size_t width = 0;
    while (!text.empty()) {
        char32_t c = 0;
        const std::size_t length = Tlx::utf8Character(text, &c);
        width += length == 0 ? 1 : static_cast<std::size_t>(columnsOf(c));
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return width;
}

std::string bytesText(unsigned long long bytes)
{
    return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
}

std::string shortBytesText(double bytes)
{
    static const char* const units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024)
        return fmt::format("{:.0f} B", bytes);
    std::size_t unit = 0;
    double value = bytes / 1024;
    for (; value >= 1024 && unit + 1 < std::size(units); ++unit)
        value /= 1024;
    return fmt::format("{:.1f} {}", value, units[unit]);
}

/// The widest column. A longer name does not widen its column.
constexpr std::size_t MAX_COLUMN = 100;

std::string formatTable(const std::vector<std::vector<std::string>>& rows)
{
    std::vector<std::vector<std::string>> cells = rows;
    std::vector<std::size_t> widths;
    for (auto& row : cells) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            row[i] = row[i].empty() ? "-" : escaped(row[i]);
            widths[i] = std::max(widths[i], std::min(displayWidth(row[i]), MAX_COLUMN));
        }
    }
    std::string text;
    for (const auto& row : cells) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            text += row[i];
            if (i + 1 < row.size())
                text.append(2 + widths[i] - std::min(widths[i], displayWidth(row[i])), ' ');
        }
        text += '\n';
    }
    return text;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
