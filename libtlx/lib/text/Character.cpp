#include <tlx/Character.h>

#include <algorithm>
#include <iterator>

namespace Veltrane::Quillmark::Tlx {

namespace {

/// Each class has the reasons of those before it, too.
enum class Harm
{
    NONE,
    UNREADABLE,
    DECEPTIVE,
    CONTROL
};

struct Range
{
    char32_t first;
    char32_t last;
    Harm harm;
};

/// In ascending order. The last two code points of every plane are left out and tested by a rule.
/// Stores and names rely on this list: docs/formats.md.
constexpr Range TABLE[] = {
    {0x00, 0x1F, Harm::CONTROL},        // C0 controls
    {0x7F, 0x9F, Harm::CONTROL},        // delete, C1 controls
    {0xA0, 0xA0, Harm::UNREADABLE},     // no-break space
    {0xAD, 0xAD, Harm::UNREADABLE},     // soft hyphen
    {0x34F, 0x34F, Harm::UNREADABLE},   // combining grapheme joiner
    {0x61C, 0x61C, Harm::DECEPTIVE},    // Arabic letter mark
    {0x115F, 0x1160, Harm::UNREADABLE}, // Hangul fillers
    {0x1680, 0x1680, Harm::UNREADABLE}, // Ogham space mark
    {0x17B4, 0x17B5, Harm::UNREADABLE}, // Khmer inherent vowels
    {0x180B, 0x180F, Harm::UNREADABLE}, // Mongolian selectors and vowel separator
    {0x2000, 0x200D, Harm::UNREADABLE}, // spaces, zero-width characters
    {0x200E, 0x200F, Harm::DECEPTIVE},  // direction marks
    {0x2028, 0x2029, Harm::DECEPTIVE},  // line and paragraph separators
    {0x202A, 0x202E, Harm::DECEPTIVE},  // direction embeddings and overrides
    {0x202F, 0x202F, Harm::UNREADABLE}, // narrow no-break space
    {0x205F, 0x2065, Harm::UNREADABLE}, // mathematical space, invisible operators
    {0x2066, 0x2069, Harm::DECEPTIVE},  // direction isolates
    {0x206A, 0x206F, Harm::UNREADABLE}, // deprecated format controls
    {0x2800, 0x2800, Harm::UNREADABLE}, // blank Braille pattern
    {0x3000, 0x3000, Harm::UNREADABLE}, // ideographic space
    {0x3164, 0x3164, Harm::UNREADABLE}, // Hangul filler
    {0xD800, 0xF8FF, Harm::UNREADABLE}, // surrogates, private use
    {0xFDD0, 0xFDEF, Harm::UNREADABLE}, // noncharacters
    {0xFE00, 0xFE0F, Harm::UNREADABLE}, // variation selectors
    {0xFEFF, 0xFEFF, Harm::DECEPTIVE},  // byte order mark
    {0xFFA0, 0xFFA0, Harm::UNREADABLE}, // half-width Hangul filler
    {0xFFF0, 0xFFFF,
     Harm::UNREADABLE}, // unassigned, interlinear annotation, replacement characters
    {0x1BCA0, 0x1BCA3, Harm::UNREADABLE}, // shorthand format controls
    {0x1D173, 0x1D17A, Harm::UNREADABLE}, // musical format controls
    {0xE0000, 0xE0FFF, Harm::UNREADABLE}, // tags, variation selectors
    {0xF0000, 0x10FFFF, Harm::UNREADABLE} // private use
};

Harm harmOf(char32_t codePoint)
{
    if (codePoint >= 0x20 && codePoint < 0x7F)
        return Harm::NONE;
    if ((codePoint & 0xFFFE) == 0xFFFE)
        return Harm::UNREADABLE;
    const auto range = std::lower_bound(std::begin(TABLE), std::end(TABLE), codePoint,
                                        [](const Range& r, char32_t c) { return r.last < c; });
    return range == std::end(TABLE) || codePoint < range->first ? Harm::NONE : range->harm;
}

} // namespace

bool isControl(char32_t codePoint)
{
    return harmOf(codePoint) >= Harm::CONTROL;
}

bool isDeceptive(char32_t codePoint)
{
    return harmOf(codePoint) >= Harm::DECEPTIVE;
}

bool isUnreadable(char32_t codePoint)
{
    return harmOf(codePoint) >= Harm::UNREADABLE;
}

} // namespace Veltrane::Quillmark::Tlx
