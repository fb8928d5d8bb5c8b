#include <tlx/Wildcard.h>

#include <tlx/String.h>

#include "WildcardMatch.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

bool isAscii(char byte)
{
    return static_cast<unsigned char>(byte) < 0x80;
}

/// The character at a position. A byte that is not valid UTF-8 counts as a character.
std::string_view characterAt(std::string_view text, std::size_t position)
{
    const std::string_view rest = text.substr(position);
    if (isAscii(rest.front()))
        return rest.substr(0, 1);
    const std::size_t length = utf8Character(rest);
    return rest.substr(0, length ? length : 1);
}

} // namespace

// Only the last "*" needs another try, because it can match everything that an earlier "*" could
// match. So one place to go back to is enough. There is no recursion, and the number of steps is at
// most the product of the lengths.
bool wildcardMatch(std::string_view pattern, std::string_view text, std::uint64_t& steps)
{
    constexpr std::size_t none = std::string_view::npos;
    std::size_t inPattern = 0;
    std::size_t inText = 0;
    std::size_t afterStar = none; // the pattern's position after its last "*"
    std::size_t resumeInText = 0; // where that "*" ended in the last try

    while (inText < text.size()) {
        ++steps;
        if (inPattern < pattern.size()) {
            const char wanted = pattern[inPattern];
            if (wanted == '*') {
                afterStar = ++inPattern;
                resumeInText = inText;
                continue;
            }
            // A byte of ASCII is a whole character, also in the text.
            if (isAscii(wanted) && wanted != '?') {
                if (wanted == text[inText]) {
                    ++inPattern;
                    ++inText;
                    continue;
                }
            } else {
                const std::string_view wantedCharacter = characterAt(pattern, inPattern);
                const std::string_view textCharacter = characterAt(text, inText);
                if (wanted == '?' || wantedCharacter == textCharacter) {
                    inPattern += wantedCharacter.size();
                    inText += textCharacter.size();
                    continue;
                }
            }
        }
        if (afterStar == none)
            return false;
        if (afterStar == pattern.size())
            return true; // the "*" at the pattern's end takes the rest
        resumeInText += characterAt(text, resumeInText).size();
        // The next try can only begin where the text has the character after the "*".
        if (const char next = pattern[afterStar]; isAscii(next) && next != '*' && next != '?') {
            resumeInText = text.find(next, resumeInText);
            if (resumeInText == none)
                return false;
        }
        inText = resumeInText;
        inPattern = afterStar;
    }
    while (inPattern < pattern.size() && pattern[inPattern] == '*') {
        ++steps;
        ++inPattern;
    }
    return inPattern == pattern.size();
}

int wildcardcmp(const char* pattern, const char* text, int /*flag*/)
{
    std::uint64_t steps = 0;
    return wildcardMatch(pattern ? pattern : "", text ? text : "", steps) ? 0 : 1;
}

} // namespace Veltrane::Quillmark::Tlx
