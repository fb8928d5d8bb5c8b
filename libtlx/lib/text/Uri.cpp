#include <tlx/Uri.h>

#include <algorithm>
#include <iterator>

namespace Veltrane::Quillmark::Tlx {

namespace {

struct Range
{
    char32_t first;
    char32_t last;
};

/// Characters beyond ASCII that the display form encodes, in ascending order. Without that, two
/// names could differ by one of them and look alike on a screen or in a log. The last two code
/// points of every plane are not in the list; isReadableBeyondAscii has a rule for them.
constexpr Range UNREADABLE[] = {
    {0x80, 0xA0},       // C1 controls, no-break space
    {0xAD, 0xAD},       // soft hyphen
    {0x34F, 0x34F},     // combining grapheme joiner
    {0x61C, 0x61C},     // Arabic letter mark
    {0x115F, 0x1160},   // Hangul fillers
    {0x1680, 0x1680},   // Ogham space mark
    {0x17B4, 0x17B5},   // Khmer inherent vowels
    {0x180B, 0x180F},   // Mongolian selectors and vowel separator
    {0x2000, 0x200F},   // spaces, zero-width characters, direction marks
    {0x2028, 0x202F},   // separators, direction controls, narrow no-break space
    {0x205F, 0x206F},   // mathematical space, invisible operators, deprecated format controls
    {0x2800, 0x2800},   // blank Braille pattern
    {0x3000, 0x3000},   // ideographic space
    {0x3164, 0x3164},   // Hangul filler
    {0xD800, 0xF8FF},   // surrogates, private use
    {0xFDD0, 0xFDEF},   // noncharacters
    {0xFE00, 0xFE0F},   // variation selectors
    {0xFEFF, 0xFEFF},   // byte order mark
    {0xFFA0, 0xFFA0},   // half-width Hangul filler
    {0xFFF0, 0xFFFF},   // unassigned, interlinear annotation, replacement characters
    {0x1BCA0, 0x1BCA3}, // shorthand format controls
    {0x1D173, 0x1D17A}, // musical format controls
    {0xE0000, 0xE0FFF}, // tags, variation selectors
    {0xF0000, 0x10FFFF} // private use
};

bool isReadableBeyondAscii(char32_t codePoint)
{
    if ((codePoint & 0xFFFE) == 0xFFFE)
        return false;
    const auto range = std::lower_bound(std::begin(UNREADABLE), std::end(UNREADABLE), codePoint,
                                        [](const Range& r, char32_t c) { return r.last < c; });
    return range == std::end(UNREADABLE) || codePoint < range->first;
}

bool isLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isOneOf(char c, std::string_view set)
{
    return set.find(c) != std::string_view::npos;
}

/// Whether the mask leaves an ASCII character unchanged.
bool leavesAscii(char c, unsigned mask)
{
    if ((mask & UC_UNRESERVED) && (isLetter(c) || isDigit(c) || isOneOf(c, "-._~")))
        return true;
    if ((mask & UC_WILDCARD) && isOneOf(c, "*?"))
        return true;
    return (mask & UC_READABLE) && isOneOf(c, "!#$&'()*+,/:;=?@[]");
}

/// The value of a hexadecimal digit; -1 for another character.
int hexValue(char c)
{
    if (isDigit(c))
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

void appendEncoded(std::string& out, std::string_view bytes)
{
    constexpr char digits[] = "0123456789ABCDEF";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += '%';
        out += digits[byte >> 4];
        out += digits[byte & 0xF];
    }
}

/// The position of the authority in a URI; npos without an authority.
std::size_t authorityStart(std::string_view text)
{
    if (text.starts_with("//"))
        return 2;
    if (text.empty() || !isLetter(text[0]))
        return std::string_view::npos;
    std::size_t end = 1;
    while (end < text.size() &&
           (isLetter(text[end]) || isDigit(text[end]) || isOneOf(text[end], "+-.")))
        ++end;
    return text.substr(end).starts_with("://") ? end + 3 : std::string_view::npos;
}

} // namespace

std::string uriDecode(std::string_view uriText)
{
    std::string bytes;
    bytes.reserve(uriText.size());
    for (std::size_t i = 0; i < uriText.size(); ++i) {
        if (uriText[i] == '%' && i + 2 < uriText.size()) {
            const int high = hexValue(uriText[i + 1]);
            const int low = hexValue(uriText[i + 2]);
            if (high >= 0 && low >= 0) {
                bytes += static_cast<char>(high * 16 + low);
                i += 2;
                continue;
            }
        }
        bytes += uriText[i];
    }
    return bytes;
}

std::string uriEncode(std::string_view uriText, unsigned mask)
{
    const std::string bytes = uriDecode(uriText);
    std::string encoded;
    encoded.reserve(bytes.size());
    std::string_view rest = bytes;
    while (!rest.empty()) {
        char32_t codePoint = 0;
        const std::size_t length = utf8Character(rest, &codePoint);
        const std::string_view character = rest.substr(0, length ? length : 1);
        const bool leave = length == 1   ? leavesAscii(character[0], mask)
                           : length == 0 ? false
                                         : (mask & UC_READABLE) && isReadableBeyondAscii(codePoint);
        if (leave)
            encoded += character;
        else
            appendEncoded(encoded, character);
        rest.remove_prefix(character.size());
    }
    return encoded;
}

Uri::Uri(std::string_view text) : m_text(text)
{
    const std::size_t start = authorityStart(text);
    if (start != std::string_view::npos) {
        const std::string_view rest = text.substr(start);
        m_authority.setAuthority(rest.substr(0, rest.find_first_of("/?#")));
    }
}

} // namespace Veltrane::Quillmark::Tlx
