// Which names a request may carry.

#include "NameCheck.h"

#include <string>

#include <gtest/gtest.h>

#include "NameBounds.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {
namespace {

using QmTest::Lines;
using QmTest::LogCapture;

TEST(NameCheckTest, ANameAtTheBoundAndOneByteAbove)
{
    const std::string most(MAX_NAME_BYTES, 's');
    const std::string more = most + "s";
    const LogCapture log;
    EXPECT_TRUE(areNamesBounded({most.c_str(), most.c_str(), most.c_str(), most.c_str()}));
    EXPECT_TRUE(areNamesBounded({"", ""}));
    EXPECT_EQ(log.texts(1), Lines{});
    EXPECT_FALSE(areNamesBounded({more.c_str(), "a", "h", "n"}));
    EXPECT_FALSE(areNamesBounded({"s", more.c_str(), "h", "n"}));
    EXPECT_FALSE(areNamesBounded({"s", "a", more.c_str(), "n"}));
    EXPECT_FALSE(areNamesBounded({"s", "a", "h", more.c_str()}));
    EXPECT_FALSE(areNamesBounded({more.c_str(), more.c_str()}));
    const std::string shown = " \"" + std::string(SHOWN_NAME_BYTES, 's') + "...\" has 1025";
    const std::string bound = "A name may have 1024 bytes, the ";
    EXPECT_EQ(log.texts(1),
              (Lines{bound + "subject" + shown, bound + "authority" + shown, bound + "host" + shown,
                     bound + "service name" + shown, bound + "subject" + shown}));
    EXPECT_EQ(log.severities(log.texts(1)[0])[0], LogSeverity::Warning);
}

TEST(NameCheckTest, BytesCountAndNotCharacters)
{
    std::string name;
    while (name.size() < MAX_NAME_BYTES)
        name += "\xC3\xA9";
    EXPECT_TRUE(areNamesBounded({name.c_str(), "a"}));
    name += "\xC3\xA9";
    EXPECT_FALSE(areNamesBounded({name.c_str(), "a"}));
}

TEST(NameCheckTest, TheShownBeginningHasWholeCharacters)
{
    const std::string padding(SHOWN_NAME_BYTES, 'x');
    for (std::size_t before = 60; before <= SHOWN_NAME_BYTES; ++before) {
        const std::string head = padding.substr(0, before);
        const std::string name = head + "\xF0\x9F\x98\x80" + padding; // one character
        EXPECT_EQ(beginningOfName(name), before == 60 ? name.substr(0, 64) : head) << before;
    }
    EXPECT_EQ(beginningOfName(padding), padding);
    EXPECT_EQ(beginningOfName("short"), "short");
    EXPECT_EQ(beginningOfName(""), "");
    EXPECT_EQ(beginningOfName(std::string(200, '\x80')), "") << "no character begins";
}

TEST(NameCheckTest, ANameWithoutText)
{
    const LogCapture log;
    EXPECT_TRUE(areNamesComplete({"s", "a"}, "A record"));
    EXPECT_FALSE(areNamesComplete({"", "a"}, "A record"));
    EXPECT_FALSE(areNamesComplete({"s", "", "h"}, "An explorer"));
    EXPECT_EQ(log.texts(1),
              (Lines{"A record needs a subject and an authority, got subject \"\" and authority "
                     "\"a\"",
                     "An explorer needs a subject and an authority, got subject \"s\" and "
                     "authority \"\" from host \"h\""}));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
