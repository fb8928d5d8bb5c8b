#include <tlx/Utf8.h>

#include <iterator>

#include <utf8.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

/// The length that the first byte announces. The library checks it.
std::size_t claimedLength(unsigned char first)
{
    return first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
}

} // namespace

// The library's own decoder throws on bad bytes. Here they are a normal case.
std::size_t utf8Character(std::string_view text, char32_t* codePoint)
{
    if (text.empty())
        return 0;
    const std::size_t length = claimedLength(static_cast<unsigned char>(text.front()));
    if (text.size() < length ||
        !utf8::is_valid(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length)))
        return 0;
    if (codePoint) {
        const char* first = text.data();
        *codePoint = utf8::unchecked::next(first);
    }
    return length;
}

bool isUtf8(std::string_view text)
{
    return utf8::is_valid(text.begin(), text.end());
}

void appendUtf8(std::string& text, char32_t codePoint)
{
    utf8::unchecked::append(codePoint, std::back_inserter(text));
}

} // namespace Veltrane::Quillmark::Tlx
