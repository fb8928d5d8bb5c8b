// Characters that deceive: every code point of each class, and their treatment in each place.

#include <tlx/Character.h>

#include <tlx/Uri.h>
#include <tlx/Utf8.h>

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

struct Range
{
    char32_t first;
    char32_t last;
};

template <class Ranges>
bool contains(const Ranges& ranges, char32_t c)
{
    for (const Range& range : ranges)
        if (c >= range.first && c <= range.last)
            return true;
    return false;
}

constexpr Range CONTROLS[] = {{0x00, 0x1F}, {0x7F, 0x9F}};
constexpr Range DECEPTIVE[] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0x61C, 0x61C},
                               {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069},
                               {0xFEFF, 0xFEFF}};
/// The characters that the display form of a name encodes. Stores hold names in this form.
constexpr Range ENCODED[] = {
    {0x80, 0xA0},       {0xAD, 0xAD},       {0x34F, 0x34F},     {0x61C, 0x61C},
    {0x115F, 0x1160},   {0x1680, 0x1680},   {0x17B4, 0x17B5},   {0x180B, 0x180F},
    {0x2000, 0x200F},   {0x2028, 0x202F},   {0x205F, 0x206F},   {0x2800, 0x2800},
    {0x3000, 0x3000},   {0x3164, 0x3164},   {0xD800, 0xF8FF},   {0xFDD0, 0xFDEF},
    {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0},   {0xFFF0, 0xFFFF},
    {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF}, {0xF0000, 0x10FFFF}};

TEST(CharacterTest, ControlsSteerATerminal)
{
    for (char32_t c = 0; c <= 0x10FFFF; ++c)
        ASSERT_EQ(contains(CONTROLS, c), isControl(c)) << std::size_t{c};
}

TEST(CharacterTest, DeceptiveCharactersMakeAShownTextLie)
{
    for (char32_t c = 0; c <= 0x10FFFF; ++c)
        ASSERT_EQ(contains(DECEPTIVE, c), isDeceptive(c)) << std::size_t{c};
}

TEST(CharacterTest, UnreadableCharactersAreThoseAndWhatCannotBeSeen)
{
    for (char32_t c = 0; c <= 0x10FFFF; ++c) {
        const bool expected =
            contains(CONTROLS, c) || contains(ENCODED, c) || (c & 0xFFFE) == 0xFFFE;
        ASSERT_EQ(expected, isUnreadable(c)) << std::size_t{c};
    }
}

TEST(CharacterTest, TheDisplayFormOfANameEncodesTheSameAsEver)
{
    for (char32_t c = 0x80; c <= 0x10FFFF; ++c) {
        if (c >= 0xD800 && c <= 0xDFFF)
            continue;
        std::string text;
        appendUtf8(text, c);
        const bool encoded = contains(ENCODED, c) || (c & 0xFFFE) == 0xFFFE;
        ASSERT_EQ(encoded, uriEncode(text, URI_MASK_DISPLAY) != text) << std::size_t{c};
    }
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
