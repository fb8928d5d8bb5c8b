// The command line: the options that are accepted, and the messages about the others.

#include "Options.h"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Veltrane::Quillmark::Qmdisco;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

Result<Options> parse(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "qmdisco");
    return parseOptions(static_cast<int>(arguments.size()), arguments.data());
}

void expectUsage(std::vector<const char*> arguments, const std::string& message)
{
    const auto parsed = parse(std::move(arguments));
    ASSERT_FALSE(parsed);
    EXPECT_EQ(EC_USAGE, parsed.error().code);
    EXPECT_EQ("qmdisco: " + message + " (\"qmdisco --help\" shows the options)\n",
              parsed.error().text);
}

TEST(Options, NoOptionIsNeeded)
{
    const auto parsed = parse({});
    ASSERT_TRUE(parsed) << parsed.error().text;
    EXPECT_FALSE(parsed->foreground);
    EXPECT_FALSE(parsed->checkConfig);
    EXPECT_EQ("", parsed->root);
    EXPECT_EQ(std::nullopt, parsed->logLevel);
}

TEST(Options, AllAreTaken)
{
    const auto parsed =
        parse({"--foreground", "--root", "/some/where", "--check-config", "--log-level", "9"});
    ASSERT_TRUE(parsed) << parsed.error().text;
    EXPECT_TRUE(parsed->foreground);
    EXPECT_TRUE(parsed->checkConfig);
    EXPECT_EQ("/some/where", parsed->root);
    EXPECT_EQ(9, parsed->logLevel);
}

TEST(Options, ValuesMayFollowAnEqualsSign)
{
    const auto parsed = parse({"--root=/r", "--log-level=0"});
    ASSERT_TRUE(parsed) << parsed.error().text;
    EXPECT_EQ("/r", parsed->root);
    EXPECT_EQ(0, parsed->logLevel);
}

TEST(Options, RefusesAnUnknownOption)
{
    expectUsage({"--fast"}, "The following argument was not expected: --fast");
}

TEST(Options, RefusesAnArgument)
{
    expectUsage({"start"}, "The following argument was not expected: start");
}

TEST(Options, RefusesLogLevelsOutOfRange)
{
    for (const std::string level : {"10", "-1", "abc", "1.5", "+1", "0x1", ""})
        expectUsage({"--log-level", level.c_str()},
                    "--log-level: a number from 0 to 9 is expected, not \"" + level + "\"");
}

TEST(Options, RefusesAnEmptyRoot)
{
    expectUsage({"--root", ""}, "--root: a directory is expected, not an empty name");
}

TEST(Options, RefusesAMissingValue)
{
    expectUsage({"--root"}, "--root: 1 required DIR missing");
}

TEST(Options, RefusesAnOptionGivenTwice)
{
    const auto parsed = parse({"--root", "/a", "--root", "/b"});
    ASSERT_FALSE(parsed);
    EXPECT_EQ(EC_USAGE, parsed.error().code);
    EXPECT_THAT(parsed.error().text, StartsWith("qmdisco: --root: "));
    EXPECT_EQ(parsed.error().text.size() - 1, parsed.error().text.find('\n'));
}

TEST(Options, AMessageIsOneLineWhateverTheArgumentHolds)
{
    const auto parsed = parse({"--log-level", "a\nb"});
    ASSERT_FALSE(parsed);
    EXPECT_EQ(EC_USAGE, parsed.error().code);
    EXPECT_EQ(parsed.error().text.size() - 1, parsed.error().text.find('\n'));
}

TEST(Options, TheVersionIsPrinted)
{
    const auto parsed = parse({"--version"});
    ASSERT_FALSE(parsed);
    EXPECT_EQ(EC_OK, parsed.error().code);
    EXPECT_EQ(std::string("qmdisco ") + version() + "\n", parsed.error().text);
    EXPECT_NE("", std::string(version()));
}

TEST(Options, HelpListsOptionsAndExitCodes)
{
    for (const char* option : {"--help", "-h"}) {
        const auto parsed = parse({option});
        ASSERT_FALSE(parsed);
        EXPECT_EQ(EC_OK, parsed.error().code);
        for (const char* text :
             {"--foreground", "--root DIR", "--check-config", "--log-level N", "--version"})
            EXPECT_THAT(parsed.error().text, HasSubstr(text));
        EXPECT_THAT(parsed.error().text, HasSubstr(exitCodeTable()));
    }
}

TEST(ExitCodes, EachHasALine)
{
    EXPECT_EQ("Exit codes:\n"
              "  0  stopped in order, or not wanted on this host\n"
              "  1  unexpected failure\n"
              "  2  wrong option\n"
              "  3  TLS cannot be used as configured, or --check-config found problems\n"
              "  4  another qmdisco is running on this root\n"
              "  5  the root cannot be made or written\n"
              "  6  no privilege to reopen stored records\n"
              "  7  cannot listen for requests\n"
              "  8  the service did not come up\n"
              "  9  the stop did not finish within STOP_LIMIT seconds",
              exitCodeTable());
}

} // namespace
