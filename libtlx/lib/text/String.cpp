#include <tlx/String.h>

#include <algorithm>

#include <tlx/Text.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

bool isHighSurrogate(char32_t unit)
{
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool isLowSurrogate(char32_t unit)
{
    return unit >= 0xDC00 && unit <= 0xDFFF;
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
            codePoint = REPLACEMENT_CHARACTER;
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
        char32_t codePoint = REPLACEMENT_CHARACTER;
        const std::size_t length = utf8Character(rest, &codePoint);
        appendUtf16(utf16, codePoint);
        rest.remove_prefix(length ? length : 1);
    }
    return utf16;
}

int compareIgnoringCase(const TlxString& a, const TlxString& b)
{
    const std::string& left = a.utf8();
    const std::string& right = b.utf8();
    const std::size_t common = std::min(left.size(), right.size());
    for (std::size_t i = 0; i < common; ++i) {
        const auto l = static_cast<unsigned char>(lowerCase(left[i]));
        const auto r = static_cast<unsigned char>(lowerCase(right[i]));
        if (l != r)
            return l < r ? -1 : 1;
    }
    if (left.size() == right.size())
        return 0;
    return left.size() < right.size() ? -1 : 1;
}

bool isSameIgnoringCase(const TlxString& a, const TlxString& b)
{
    return a.size() == b.size() && compareIgnoringCase(a, b) == 0;
}

} // namespace Veltrane::Quillmark::Tlx
