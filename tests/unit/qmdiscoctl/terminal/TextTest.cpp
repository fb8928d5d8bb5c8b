// Text, tables and progress for people.

#include "Text.h"

#include <gtest/gtest.h>

#include <tlx/Character.h>
#include <tlx/Utf8.h>

#include "Progress.h"

namespace Veltrane::Quillmark::Qmdiscoctl {
namespace {

using namespace std::chrono_literals;

TEST(CtlTextTest, TerminalControlCharactersAreEscaped)
{
    EXPECT_EQ(escaped("plain é 日"), "plain é 日");
    EXPECT_EQ(escaped("a\nb\tc\r\x1b[31m\x7f"), "a\\nb\\tc\\r\\x1b[31m\\x7f");
    EXPECT_EQ(escaped("\\"), "\\\\");
    EXPECT_EQ(escaped("\xff"), "\\xff");
    EXPECT_EQ(escaped("a\xe2\x80\xae"
                      "b"),
              "a\\u202eb");
    // Escapes the backslash and every character that deceives, and no other.
    for (char32_t c = 1; c <= 0x10FFFF; ++c) {
        std::string text;
        if (c < 0xD800 || c > 0xDFFF)
            Tlx::appendUtf8(text, c);
        ASSERT_EQ(escaped(text) != text, Tlx::isDeceptive(c) || c == '\\') << std::size_t{c};
    }
}

TEST(CtlTextTest, WidthsAreColumns)
{
    EXPECT_EQ(displayWidth("abc"), 3u);
    EXPECT_EQ(displayWidth("é"), 1u);
    EXPECT_EQ(displayWidth("日本"), 4u);
}

TEST(CtlTextTest, AmountsOfBytes)
{
    EXPECT_EQ(bytesText(0), "0 bytes");
    EXPECT_EQ(bytesText(1), "1 byte");
    EXPECT_EQ(shortBytesText(1023), "1023 B");
    EXPECT_EQ(shortBytesText(1536), "1.5 KiB");
    EXPECT_EQ(shortBytesText(2.0 * 1024 * 1024), "2.0 MiB");
}

TEST(CtlTextTest, TablesLineUp)
{
    EXPECT_EQ(formatTable({{"A", "BB"}, {"日", ""}, {"ccc", "d\n"}}), "A    BB\n"
                                                                      "日   -\n"
                                                                      "ccc  d\\n\n");
}

TEST(CtlProgressTest, ALineHasABarWhenTheTotalIsKnown)
{
    EXPECT_EQ(progressLine("put", 512, 1024, 1s, 80),
              "put [===================>                  ]   50%  512 B/1.0 KiB  512 B/s");
    EXPECT_EQ(progressLine("get", 2048, std::nullopt, 2s, 80), "get  2.0 KiB  1.0 KiB/s");
    for (std::size_t width : {0u, 10u, 20u, 40u, 79u})
        EXPECT_LE(displayWidth(progressLine("put", 512, 1024, 1s, width)), std::max(width, 40ul));
}

TEST(CtlProgressTest, AShortTransferShowsNothingAndALongOneLeavesNoTrace)
{
    Progress::Clock::time_point now{};
    std::string drawn;
    {
        Progress progress(
            "put", 100, [&] { return now; }, 80, [&](const std::string& text) { drawn += text; });
        progress.add(10);
        EXPECT_EQ(drawn, "");
        now += 2s;
        progress.add(10);
        EXPECT_NE(drawn.find("20%"), std::string::npos);
        const auto size = drawn.size();
        progress.add(10);
        EXPECT_EQ(drawn.size(), size) << "drawn again at once";
    }
    EXPECT_EQ(drawn.back(), '\r');
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
