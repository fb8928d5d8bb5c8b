// UTF-8: every code point, and every kind of bad bytes.

#include <tlx/Utf8.h>

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

bool isSurrogate(char32_t c)
{
    return c >= 0xD800 && c <= 0xDFFF;
}

/// The bytes of a code point by the definition, surrogates included.
std::string bytesOf(char32_t c)
{
    std::string bytes;
    const auto byte = [&bytes](char32_t value) { bytes += static_cast<char>(value); };
    const auto more = [&](int shift) { byte(0x80 | ((c >> shift) & 0x3F)); };
    if (c < 0x80) {
        byte(c);
    } else if (c < 0x800) {
        byte(0xC0 | c >> 6);
        more(0);
    } else if (c < 0x10000) {
        byte(0xE0 | c >> 12);
        more(6);
        more(0);
    } else {
        byte(0xF0 | c >> 18);
        more(12);
        more(6);
        more(0);
    }
    return bytes;
}

TEST(Utf8Test, EveryCodePointIsReadAndWritten)
{
    for (char32_t c = 0; c <= 0x10FFFF; ++c) {
        const std::string bytes = bytesOf(c);
        char32_t read = 0x123456;
        if (isSurrogate(c)) {
            ASSERT_EQ(0u, utf8Character(bytes, &read)) << std::size_t{c};
            ASSERT_EQ(char32_t{0x123456}, read);
            ASSERT_FALSE(isUtf8(bytes));
            continue;
        }
        std::string written = bytes;
        appendUtf8(written, c);
        ASSERT_EQ(0, written.compare(bytes.size(), std::string::npos, bytes)) << std::size_t{c};
        ASSERT_EQ(bytes.size(), utf8Character(written, &read)) << std::size_t{c};
        ASSERT_EQ(c, read);
        ASSERT_TRUE(isUtf8(bytes));
        for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
            ASSERT_EQ(0u, utf8Character(bytes.substr(0, cut))) << std::size_t{c};
            ASSERT_EQ(0u, utf8Character(written.substr(0, cut).append("x"))) << std::size_t{c};
            ASSERT_FALSE(isUtf8(bytes.substr(0, cut)));
        }
    }
}

TEST(Utf8Test, WhatIsNoCharacterHasNoLength)
{
    EXPECT_EQ(0u, utf8Character(""));
    for (const std::string bad :
         {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xE0\x80\x80", "\xE0\x9F\xBF",
          "\xF0\x80\x80\x80", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80",
          "\xF8\x88\x80\x80\x80", "\xFC\x84\x80\x80\x80\x80", "\xFE", "\xFF"}) {
        EXPECT_EQ(0u, utf8Character(bad)) << bad;
        EXPECT_FALSE(isUtf8(bad)) << bad;
        EXPECT_FALSE(isUtf8(std::string("ab").append(bad).append("cd"))) << bad;
    }
    EXPECT_TRUE(isUtf8(""));
    EXPECT_TRUE(isUtf8(std::string_view("a\0b", 3)));
}

TEST(Utf8Test, TheReplacementIsOneCharacter)
{
    char32_t c = 0;
    EXPECT_EQ(REPLACEMENT_UTF8.size(), utf8Character(REPLACEMENT_UTF8, &c));
    EXPECT_EQ(REPLACEMENT_CHARACTER, c);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
