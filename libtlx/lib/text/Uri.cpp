#include <tlx/Uri.h>

#include <tlx/Character.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

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
                                         : (mask & UC_READABLE) && !isUnreadable(codePoint);
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
