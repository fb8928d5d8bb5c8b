#include <gtest/gtest.h>

#include <string>

#include <tlx/Uri.h>

using namespace Veltrane::Quillmark::Tlx;

namespace {

std::string display(std::string_view text)
{
    return uriEncode(text, URI_MASK_DISPLAY);
}

std::string fileName(std::string_view text)
{
    return uriEncode(text, URI_MASK_FILE_NAME);
}

std::string utf8(char32_t codePoint)
{
    std::basic_string<XMLCh> utf16;
    if (codePoint < 0x10000)
        utf16 = {static_cast<XMLCh>(codePoint)};
    else
        utf16 = {static_cast<XMLCh>(0xD7C0 + (codePoint >> 10)),
                 static_cast<XMLCh>(0xDC00 + (codePoint & 0x3FF))};
    return TlxString::fromXmlCh(utf16).utf8();
}

TEST(UriTest, TheMasksAreTheSumsOfTheirClasses)
{
    EXPECT_EQ(URI_MASK_DISPLAY, 10u);
    EXPECT_EQ(URI_MASK_FILE_NAME, 24u);
}

TEST(UriTest, DecodingTakesWellFormedTripletsAlone)
{
    EXPECT_EQ(uriDecode("%41"), "A");
    EXPECT_EQ(uriDecode("a%2fb%2F"), "a/b/");
    EXPECT_EQ(uriDecode("%zz"), "%zz");
    EXPECT_EQ(uriDecode("%"), "%");
    EXPECT_EQ(uriDecode("%4"), "%4");
    EXPECT_EQ(uriDecode("%%41"), "%A");
    EXPECT_EQ(uriDecode("%2541"), "%41");
    EXPECT_EQ(uriDecode("%00"), std::string(1, '\0'));
    EXPECT_EQ(uriDecode(""), "");
}

TEST(UriTest, APercentThatBeginsNoTripletIsItselfEncoded)
{
    EXPECT_EQ(display("%zz"), "%25zz");
    EXPECT_EQ(fileName("%zz"), "%25zz");
    EXPECT_EQ(display("100%"), "100%25");
    EXPECT_EQ(display("%41"), "A");
    EXPECT_EQ(display("%2541"), "%2541");
}

TEST(UriTest, WhatTheDisplayFormLeavesOfAscii)
{
    std::string left;
    for (int byte = 0; byte < 0x80; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        if (display(text) == text)
            left += text;
    }
    EXPECT_EQ(left, "!#$&'()*+,-./0123456789:;=?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[]_"
                    "abcdefghijklmnopqrstuvwxyz~");
    EXPECT_EQ(display(" \"%<>\\^`{|}\x7F\n"), "%20%22%25%3C%3E%5C%5E%60%7B%7C%7D%7F%0A");
}

TEST(UriTest, WhatTheFileNameFormLeaves)
{
    std::string left;
    for (int byte = 0; byte < 0x80; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        if (fileName(text) == text)
            left += text;
    }
    EXPECT_EQ(left, "*-.0123456789?ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz~");
    EXPECT_EQ(fileName("a b/\xC3\xA9"), "a%20b%2F%C3%A9");
    EXPECT_EQ(fileName("../*"), "..%2F*");
}

TEST(UriTest, AnEmptyMaskLeavesNothing)
{
    EXPECT_EQ(uriEncode("aZ0-*\xC3\xA9", 0), "%61%5A%30%2D%2A%C3%A9");
    EXPECT_EQ(uriEncode("a*!", UC_READABLE), "%61*!");
}

TEST(UriTest, TheDisplayFormLeavesWhatReadsWell)
{
    for (const char* text : {"caf\xC3\xA9", "\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x98\x80",
                             "\xD0\x96", "\xC2\xA1", "\xE2\x82\xAC"})
        EXPECT_EQ(display(text), text);
    EXPECT_EQ(display("caf%C3%A9"), "caf\xC3\xA9");
}

TEST(UriTest, TheDisplayFormEncodesWhatCannotBeSeenOrCarried)
{
    EXPECT_EQ(display("a\xC2\xA0"
                      "b"),
              "a%C2%A0b");
    for (const char32_t codePoint :
         {0x80,    0x85,    0x9F,     0xA0,     0xAD,    0x34F,  0x61C,   0x1680,  0x180E,
          0x2000,  0x200B,  0x200C,   0x200F,   0x2028,  0x2029, 0x202A,  0x202E,  0x202F,
          0x205F,  0x2060,  0x206F,   0x3000,   0x3164,  0xE000, 0xF8FF,  0xFDD0,  0xFDEF,
          0xFE0F,  0xFEFF,  0xFFF9,   0xFFFD,   0xFFFE,  0xFFFF, 0x1FFFE, 0x2FFFF, 0xE0001,
          0xF0000, 0xFFFFF, 0x100000, 0x10FFFD, 0x10FFFF}) {
        const std::string text = utf8(codePoint);
        EXPECT_EQ(display(text).size(), 3 * text.size()) << std::hex << std::size_t{codePoint};
    }
    for (const char32_t codePoint :
         {0xA1,   0xAC,   0xAE,    0x167F,  0x1681,  0x1FFF, 0x2010, 0x2027,
          0x2030, 0x205E, 0x2070,  0x2FFF,  0x3001,  0xD7FF, 0xF900, 0xFDCF,
          0xFDF0, 0xFEFE, 0x10000, 0x1F600, 0x1FFFD, 0xEFFFD}) {
        const std::string text = utf8(codePoint);
        EXPECT_EQ(display(text), text) << std::hex << std::size_t{codePoint};
    }
}

TEST(UriTest, BytesThatAreNoUtf8AreAlwaysEncoded)
{
    EXPECT_EQ(display("a\xFF\xC3(\xED\xA0\x80"), "a%FF%C3(%ED%A0%80");
    EXPECT_EQ(display("%FF"), "%FF");
    EXPECT_EQ(display(std::string_view("a\0b", 3)), "a%00b");
    // One byte of the character is encoded, the other is not.
    EXPECT_EQ(display("\xC3%A9"), "\xC3\xA9");
}

TEST(UriTest, EncodingTwiceIsEncodingOnceForEveryCodePoint)
{
    for (char32_t codePoint = 1; codePoint <= 0x10FFFF; ++codePoint) {
        if (codePoint >= 0xD800 && codePoint <= 0xDFFF)
            continue;
        const std::string text = utf8(codePoint);
        for (const unsigned mask : {URI_MASK_DISPLAY, URI_MASK_FILE_NAME}) {
            const std::string once = uriEncode(text, mask);
            ASSERT_EQ(uriEncode(once, mask), once) << std::size_t{codePoint};
            ASSERT_EQ(uriDecode(once), text) << std::size_t{codePoint};
        }
    }
}

TEST(UriTest, BothFormsStandForTheSameBytes)
{
    for (const char* text : {"a b/c%zz%41%2541", "caf\xC3\xA9 \xFF%", "%%%41", "\"<>&'", "*?[a]"}) {
        EXPECT_EQ(uriDecode(display(text)), uriDecode(text));
        EXPECT_EQ(uriDecode(fileName(text)), uriDecode(text));
        EXPECT_EQ(fileName(display(text)), fileName(text));
        EXPECT_EQ(display(fileName(text)), display(text));
    }
}

TEST(UriTest, AnAuthorityIsKeptWhole)
{
    UriAuthority authority;
    EXPECT_TRUE(authority.empty());
    authority.setAuthority("user@host:14400/a b?");
    EXPECT_FALSE(authority.empty());
    EXPECT_EQ(authority.getUriEncoding(URI_MASK_DISPLAY), TlxString("user@host:14400/a%20b?"));
    EXPECT_EQ(authority.getUriEncoding(URI_MASK_FILE_NAME),
              TlxString("user%40host%3A14400%2Fa%20b?"));
    EXPECT_TRUE(UriAuthority("").empty());
}

TEST(UriTest, AUriIsSplitAtItsAuthority)
{
    const auto authorityOf = [](const char* text) {
        return Uri(text).authority().getUriEncoding(URI_MASK_DISPLAY).utf8();
    };
    EXPECT_EQ(authorityOf("http://host.example:80/path"), "host.example:80");
    EXPECT_EQ(authorityOf("x-y+z.1://host"), "host");
    EXPECT_EQ(authorityOf("//host/path"), "host");
    EXPECT_EQ(authorityOf("//host?query"), "host");
    EXPECT_EQ(authorityOf("//host#fragment"), "host");
    EXPECT_EQ(authorityOf("file:///path"), "");
    for (const char* text : {"", "/", "host", "/path", "http:/host", "http:host", "://host",
                             "1http://host", "ht tp://host", "a/b://host", "http"})
        EXPECT_EQ(authorityOf(text), "") << text;
}

TEST(UriTest, AUriIsEncodedWhole)
{
    const Uri uri("http://host/a b%41");
    EXPECT_EQ(uri.getUriEncoding(URI_MASK_DISPLAY), TlxString("http://host/a%20bA"));
    EXPECT_EQ(uri.getUriEncoding(URI_MASK_FILE_NAME), TlxString("http%3A%2F%2Fhost%2Fa%20bA"));
    EXPECT_EQ(Uri().getUriEncoding(URI_MASK_DISPLAY), TlxString());
}

} // namespace
