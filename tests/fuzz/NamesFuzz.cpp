// Fuzzes names from remote callers: their encodings and their comparison with patterns. Also the
// conversions of numbers and times.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <tlx/Uri.h>
#include <tlx/ValueConverter.h>
#include <tlx/Wildcard.h>

#include "../../libtlx/lib/text/WildcardMatch.h"
#include "Fuzz.h"

namespace {

using namespace Veltrane::Quillmark::Tlx;

void checkEncodings(const std::string& name)
{
    const std::string bytes = uriDecode(name);
    const std::string display = uriEncode(name, URI_MASK_DISPLAY);
    const std::string fileName = uriEncode(name, URI_MASK_FILE_NAME);
    require(uriEncode(display, URI_MASK_DISPLAY) == display);
    require(uriEncode(fileName, URI_MASK_FILE_NAME) == fileName);
    require(uriDecode(display) == bytes);
    require(uriDecode(fileName) == bytes);
    require(uriEncode(display, URI_MASK_FILE_NAME) == fileName);
    require(uriEncode(fileName, URI_MASK_DISPLAY) == display);
    // A file name must not lead to another directory or end early.
    require(fileName.find('/') == std::string::npos);
    require(fileName.find('\0') == std::string::npos);
    // A displayed name must be valid text.
    for (std::string_view rest = display; !rest.empty();) {
        const std::size_t length = utf8Character(rest);
        require(length > 0);
        rest.remove_prefix(length);
    }
    const Uri uri(name);
    require(uri.getUriEncoding(URI_MASK_FILE_NAME).utf8() == fileName);
    uri.authority().getUriEncoding(URI_MASK_DISPLAY);
}

std::vector<std::string_view> characters(std::string_view text)
{
    std::vector<std::string_view> result;
    while (!text.empty()) {
        const std::size_t length = utf8Character(text);
        result.push_back(text.substr(0, length ? length : 1));
        text.remove_prefix(result.back().size());
    }
    return result;
}

/// A simple implementation of the comparison: a table over all beginnings of pattern and text.
bool matchesByDefinition(std::string_view patternText, std::string_view textText)
{
    const auto pattern = characters(patternText);
    const auto text = characters(textText);
    std::vector<char> row(text.size() + 1, 0);
    row[0] = 1;
    for (const std::string_view wanted : pattern) {
        std::vector<char> next(text.size() + 1, 0);
        next[0] = row[0] && wanted == "*";
        for (std::size_t i = 1; i <= text.size(); ++i)
            next[i] = wanted == "*" ? row[i] || next[i - 1]
                                    : row[i - 1] && (wanted == "?" || wanted == text[i - 1]);
        row.swap(next);
    }
    return row[text.size()] != 0;
}

void checkWildcards(std::string_view pattern, std::string_view text)
{
    std::uint64_t steps = 0;
    const bool matches = wildcardMatch(pattern, text, steps);
    require(steps <= (pattern.size() + 1) * (text.size() + 1));
    if (pattern.size() * text.size() <= 1u << 20)
        require(matches == matchesByDefinition(pattern, text));
    if (pattern.find('\0') == std::string_view::npos && text.find('\0') == std::string_view::npos)
        require((wildcardcmp(std::string(pattern).c_str(), std::string(text).c_str(), 0) == 0) ==
                matches);
}

void checkValues(const std::string& text)
{
    TlxObjTime time;
    if (fromText(text, time)) {
        TlxObjTime back;
        require(fromText(toText(time), back) && back == time);
    }
    std::uint32_t number = 0;
    std::uint64_t wide = 0;
    if (fromText(text, number))
        require(fromText(text, wide) && wide == number);
}

} // namespace

/// The input is a name. The first line feed also splits it into a pattern and a text.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    checkEncodings(input);
    checkValues(input);
    const auto split = input.find('\n');
    if (split != std::string::npos)
        checkWildcards(std::string_view(input).substr(0, split),
                       std::string_view(input).substr(split + 1));
    return 0;
}
