#include <tlx/String.h>

#include <algorithm>

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr char32_t REPLACEMENT = 0xFFFD;

bool isHighSurrogate(char32_t unit)
{
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool isLowSurrogate(char32_t unit)
{
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

void appendUtf8(std::string& out, char32_t codePoint)
{
    const auto continuation = [codePoint](int shift) {
        return static_cast<char>(0x80 | ((codePoint >> shift) & 0x3F));
    };
    if (codePoint < 0x80) {
        out += static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        out += static_cast<char>(0xC0 | (codePoint >> 6));
        out += continuation(0);
    } else if (codePoint < 0x10000) {
        out += static_cast<char>(0xE0 | (codePoint >> 12));
        out += continuation(6);
        out += continuation(0);
    } else {
        out += static_cast<char>(0xF0 | (codePoint >> 18));
        out += continuation(12);
        out += continuation(6);
        out += continuation(0);
    }
}

void appendUtf16(std::basic_string<XMLCh>& out, char32_t codePoint)
{
    if (codePoint < 0x10000) {
        out += static_cast<XMLCh>(codePoint);
    } else {
        out += static_cast<XMLCh>(0xD800 + ((codePoint - 0x10000) >> 10));
        out += static_cast<XMLCh>(0xDC00 + ((codePoint - 0x10000) & 0x3FF));
    }
}

unsigned char lower(char letter)
{
    const auto byte = static_cast<unsigned char>(letter);
    return byte >= 'A' && byte <= 'Z' ? static_cast<unsigned char>(byte + ('a' - 'A')) : byte;
}

} // namespace

TlxString TlxString::fromXmlCh(const XMLCh* text)
{
    return text ? fromXmlCh(std::basic_string_view<XMLCh>(text)) : TlxString();
}

// The XML library's transcoders refuse the whole text because of one bad unit. Here only that unit
// is replaced.
TlxString TlxString::fromXmlCh(std::basic_string_view<XMLCh> text)
{
    std::string utf8;
    utf8.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t codePoint = text[i];
        if (isHighSurrogate(codePoint) && i + 1 < text.size() && isLowSurrogate(text[i + 1])) {
            codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (text[i + 1] - 0xDC00u);
            ++i;
        } else if (isHighSurrogate(codePoint) || isLowSurrogate(codePoint)) {
            codePoint = REPLACEMENT;
        }
        appendUtf8(utf8, codePoint);
    }
    return TlxString(std::move(utf8));
}

std::basic_string<XMLCh> TlxString::toXmlCh() const
{
    std::basic_string<XMLCh> utf16;
    utf16.reserve(m_utf8.size());
    std::string_view rest = m_utf8;
    while (!rest.empty()) {
        char32_t codePoint = REPLACEMENT;
        const std::size_t length = utf8Character(rest, &codePoint);
        appendUtf16(utf16, codePoint);
        rest.remove_prefix(length ? length : 1);
    }
    return utf16;
}

std::size_t utf8Character(std::string_view text, char32_t* codePoint)
{
    if (text.empty())
        return 0;
    const auto first = static_cast<unsigned char>(text[0]);
    std::size_t length = 0;
    char32_t value = 0;
    char32_t smallest = 0; // below it the form is longer than needed, hence not well formed
    if (first < 0x80) {
        length = 1;
        value = first;
    } else if ((first & 0xE0) == 0xC0) {
        length = 2;
        value = first & 0x1F;
        smallest = 0x80;
    } else if ((first & 0xF0) == 0xE0) {
        length = 3;
        value = first & 0x0F;
        smallest = 0x800;
    } else if ((first & 0xF8) == 0xF0) {
        length = 4;
        value = first & 0x07;
        smallest = 0x10000;
    }
    if (length == 0 || text.size() < length)
        return 0;
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0) != 0x80)
            return 0;
        value = (value << 6) | (byte & 0x3F);
    }
    if (value < smallest || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        return 0;
    if (codePoint)
        *codePoint = value;
    return length;
}

int compareIgnoringCase(const TlxString& a, const TlxString& b)
{
    const std::string& left = a.utf8();
    const std::string& right = b.utf8();
    const std::size_t common = std::min(left.size(), right.size());
    for (std::size_t i = 0; i < common; ++i)
        if (lower(left[i]) != lower(right[i]))
            return lower(left[i]) < lower(right[i]) ? -1 : 1;
    if (left.size() == right.size())
        return 0;
    return left.size() < right.size() ? -1 : 1;
}

} // namespace Veltrane::Quillmark::Tlx
