// The length of a line.

#include "../../../../libtlx/lib/base/LogLine.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Veltrane::Quillmark::Tlx;

namespace {

/// The bytes of the longest line without its time and its line break.
constexpr std::size_t MOST = MAX_LOG_LINE_BYTES - LOG_TIME_BYTES - 1;
const std::string BEGIN = "1 400 77 op [error] ";
const std::string PLACE = " (../A:12)";

std::string bodyOf(const std::string& text, const char* operation = "op",
                   const LogPlace& place = {"../A", 12})
{
    return makeLogRecord({{}, 77}, 400, {operation, 1, LogSeverity::Error, place}, text).body;
}

/// The number in "... (N bytes)".
std::string mark(std::size_t bytes)
{
    return "... (" + std::to_string(bytes) + " bytes)";
}

TEST(LogLineTest, TheLongestLineIsWhole)
{
    const std::string text = std::string(MOST - BEGIN.size() - PLACE.size(), 'a') + PLACE;
    EXPECT_EQ(BEGIN + text, bodyOf(text));
    EXPECT_EQ(MOST, bodyOf(text).size());
}

TEST(LogLineTest, ALongerTextIsCutAndKeepsItsPlace)
{
    const std::string text = std::string(MOST - BEGIN.size() - PLACE.size() + 1, 'a') + PLACE;
    const std::string body = bodyOf(text);
    EXPECT_LE(body.size(), MOST);
    EXPECT_GE(body.size(), MOST - 40);
    EXPECT_TRUE(body.starts_with(BEGIN + std::string(4000 - BEGIN.size(), 'a'))) << body;
    EXPECT_TRUE(body.ends_with("a" + mark(text.size()) + PLACE)) << body;
    EXPECT_EQ(body, bodyOf(text, "op", {"lib/A.cpp", 12})) << "the macros give the file's name";
    const std::string other = bodyOf(text, "op", {"../A", 13});
    EXPECT_TRUE(other.ends_with("a" + mark(text.size()))) << other;
}

TEST(LogLineTest, EscapesCountAndAreNotCut)
{
    const std::string body = bodyOf(std::string(10000, '\x01'));
    EXPECT_LE(body.size(), MOST);
    EXPECT_TRUE(body.ends_with("\\x01" + mark(10000))) << body;
    const std::size_t escaped = body.size() - BEGIN.size() - mark(10000).size();
    EXPECT_EQ(0u, escaped % std::string("\\x01").size());
}

TEST(LogLineTest, ACharacterIsNotCut)
{
    for (const std::size_t shift : {0, 1, 2}) {
        std::string text(shift, 'a');
        while (text.size() < 2 * MOST)
            text += "日";
        const std::string body = bodyOf(text);
        EXPECT_TRUE(body.ends_with("日" + mark(text.size()))) << body;
        EXPECT_LE(body.size(), MOST);
    }
}

TEST(LogLineTest, ALongOperationIsCut)
{
    const std::string longest(256, 'o');
    EXPECT_EQ("1 400 77 " + longest + " [error] text", bodyOf("text", longest.c_str()));
    EXPECT_EQ("1 400 77 " + longest + "... [error] text", bodyOf("text", (longest + "p").c_str()));
}

TEST(LogLineTest, AHugeTextCostsNoMoreThanTheLine)
{
    const std::string body = bodyOf(std::string(50u << 20, '\n'));
    EXPECT_LE(body.size(), MOST);
    EXPECT_TRUE(body.ends_with(mark(50u << 20))) << body;
}

TEST(LogLineTest, TheSeverityIsBehindTheOperation)
{
    for (const auto& [severity, name] :
         {std::pair(LogSeverity::Error, "error"), std::pair(LogSeverity::Warning, "warning"),
          std::pair(LogSeverity::Notice, "notice"), std::pair(LogSeverity::Debug, "debug")}) {
        EXPECT_EQ(std::string("1 400 77 op [") + name + "] text",
                  makeLogRecord({{}, 77}, 400, {"op", 1, severity, {}}, "text").body);
        EXPECT_EQ(severity, severityFromText(name));
        EXPECT_STREQ(name, toText(severity));
    }
    EXPECT_EQ(std::nullopt, severityFromText("ERROR"));
    EXPECT_EQ(std::nullopt, severityFromText(""));
}

TEST(LogLineTest, TheLevelGivesTheSeverityIfTheCodeDoesNot)
{
    EXPECT_EQ(LogSeverity::Error, severityOfLevel(0));
    EXPECT_EQ(LogSeverity::Error, severityOfLevel(1));
    EXPECT_EQ(LogSeverity::Notice, severityOfLevel(2));
    EXPECT_EQ(LogSeverity::Notice, severityOfLevel(3));
    EXPECT_EQ(LogSeverity::Debug, severityOfLevel(4));
    EXPECT_EQ(LogSeverity::Debug, severityOfLevel(6));
}

} // namespace
