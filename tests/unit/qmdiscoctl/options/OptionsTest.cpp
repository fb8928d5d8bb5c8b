// The command line's options, hosts and names.

#include "Options.h"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HostArgument.h"
#include "Names.h"

namespace Veltrane::Quillmark::Qmdiscoctl {
namespace {

using testing::HasSubstr;

ParsedOptions parse(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "qmdiscoctl");
    return parseOptions(static_cast<int>(arguments.size()), arguments.data());
}

/// The message about a wrong command line, without the parts that are always the same.
std::string refusal(const std::vector<const char*>& arguments)
{
    const ParsedOptions parsed = parse(arguments);
    EXPECT_EQ(parsed.end, EC_USAGE);
    const std::string head = "qmdiscoctl: ";
    const std::string tail = " (\"qmdiscoctl --help\" shows the options)\n";
    EXPECT_TRUE(parsed.text.starts_with(head) && parsed.text.ends_with(tail)) << parsed.text;
    return parsed.text.substr(head.size(), parsed.text.size() - head.size() - tail.size());
}

TEST(CtlOptionsTest, PutTakesAllItsOptions)
{
    const ParsedOptions parsed = parse({"put", "cl5", "srv1", "--type", "QmkServer", "--priority",
                                        "4294967295", "--ttl", "14400", "--query-type", "filter",
                                        "-", "--host", "[::1]:99", "--root", "/r", "--json"});
    ASSERT_FALSE(parsed.end) << parsed.text;
    const Options& options = parsed.options;
    EXPECT_EQ(options.command, Command::PUT);
    EXPECT_EQ(options.subject, "cl5");
    EXPECT_EQ(options.authority, "srv1");
    EXPECT_EQ(options.type, Svc::AT_QMKSERVER);
    EXPECT_EQ(options.priority, 4294967295u);
    EXPECT_EQ(options.timeToLive, 14400u);
    EXPECT_EQ(options.queryType, Svc::DQ_FILTER_DATA);
    EXPECT_EQ(options.input, "-");
    EXPECT_EQ(options.host, "[::1]:99");
    EXPECT_EQ(options.root, "/r");
    EXPECT_TRUE(options.json);
}

TEST(CtlOptionsTest, EachCommandHasItsDefaults)
{
    EXPECT_EQ(parse({"put", "a", "b", "c"}).options.type, Svc::AT_EXTSRC);
    const Options query = parse({"query"}).options;
    EXPECT_EQ(query.command, Command::QUERY);
    EXPECT_EQ(query.type, Svc::AT_ANYANDALL);
    EXPECT_EQ(query.recordsPerPage, 1024);
    EXPECT_EQ(query.queryType, Svc::DQ_DISCOVERY_DATA);
    const Options get = parse({"get", "a", "b"}).options;
    EXPECT_EQ(get.command, Command::GET);
    EXPECT_EQ(get.output, "");
    EXPECT_EQ(parse({"status"}).options.command, Command::STATUS);
    EXPECT_FALSE(parse({"refresh"}).options.all);
    EXPECT_TRUE(parse({"refresh", "--all"}).options.all);
    EXPECT_EQ(parse({"stop"}).options.waitSeconds, 30u);
    EXPECT_EQ(parse({"stop", "--wait", "5"}).options.waitSeconds, 5u);
    EXPECT_EQ(parse({"stop", "--no-wait"}).options.waitSeconds, 0u);
}

TEST(CtlOptionsTest, CommonOptionsStandBeforeOrAfterTheCommand)
{
    EXPECT_TRUE(parse({"--json", "query"}).options.json);
    EXPECT_TRUE(parse({"query", "--json"}).options.json);
    EXPECT_EQ(refusal({"--json", "query", "--json"}), "--json: given more than once");
}

TEST(CtlOptionsTest, AWrongLineIsOneLine)
{
    EXPECT_EQ(refusal({}), "a command is expected; the commands are put, query, get, items, "
                           "clients, filters, status, explorers, refresh and stop");
    EXPECT_EQ(refusal({"nonsense"}),
              "there is no command or option \"nonsense\"; the commands are put, query, get, "
              "items, clients, filters, status, explorers, refresh and stop");
    EXPECT_THAT(refusal({"query", "--type", "x"}),
                HasSubstr("anyandall, qmkserver, qmkclient, extsrc or remotepull is expected, not "
                          "\"x\""));
    EXPECT_THAT(refusal({"query", "--query-type", "x"}),
                HasSubstr("undefined, discovery or filter is expected, not \"x\""));
    EXPECT_THAT(refusal({"put", "a", "b", "c", "--priority", "4294967296"}),
                HasSubstr("a number from 0 to 4294967295 is expected, not \"4294967296\""));
    EXPECT_THAT(refusal({"put", "a", "b", "c", "--ttl", "-1"}), HasSubstr("\"-1\""));
    EXPECT_THAT(refusal({"query", "--page-size", "0"}), HasSubstr("not \"0\""));
    EXPECT_THAT(refusal({"get", "", "b"}), HasSubstr("a name is expected, not an empty text"));
    EXPECT_THAT(refusal({"get", "\xff", "b"}),
                HasSubstr("UTF-8 text is expected, not \"\\xff\"; other bytes are written as %XX"));
    EXPECT_THAT(refusal({"status", "--host", "a b"}),
                HasSubstr("HOST, HOST:PORT or [IPV6]:PORT is expected, not \"a b\""));
    EXPECT_THAT(refusal({"get", "a"}), HasSubstr("AUTHORITY"));
    EXPECT_THAT(refusal({"items", "--filter", "size > >"}),
                HasSubstr("--filter: column 8: expected a value, found \">\""));
    EXPECT_THAT(refusal({"status", "--root", ""}),
                HasSubstr("a directory is expected, not an empty name"));
}

TEST(CtlOptionsTest, HelpListsEveryExitCodeAndWhatTheStoreKeeps)
{
    const ParsedOptions help = parse({"--help"});
    EXPECT_EQ(help.end, EC_OK);
    EXPECT_THAT(help.text, HasSubstr(exitCodeTable()));
    const ParsedOptions put = parse({"put", "--help"});
    EXPECT_EQ(put.end, EC_OK);
    EXPECT_THAT(put.text, HasSubstr("store keeps no query type and does not select by it"));
}

TEST(CtlOptionsTest, TheVersionIsThePackages)
{
    const ParsedOptions parsed = parse({"--version"});
    EXPECT_EQ(parsed.end, EC_OK);
    EXPECT_EQ(parsed.text, std::string("qmdiscoctl ") + version() + "\n");
}

TEST(CtlNamesTest, NamesAndValuesGoBothWays)
{
    EXPECT_EQ(parseAuthorityType("RemotePull"), Svc::AT_REMOTEPULL);
    EXPECT_EQ(toName(Svc::AT_REMOTEPULL), "remotepull");
    EXPECT_FALSE(parseAuthorityType("4"));
    EXPECT_EQ(toName(Svc::DS_DATA_EXISTS), "DS_DATA_EXISTS");
    EXPECT_EQ(toName(static_cast<Svc::DiscoveryStatus>(77)), "77");
}

TEST(CtlHostArgumentTest, AHostMayHaveAPort)
{
    EXPECT_EQ(parseHost("backup1"), (HostArgument{"backup1", std::nullopt}));
    EXPECT_EQ(parseHost("backup1:99"), (HostArgument{"backup1", 99}));
    EXPECT_EQ(parseHost("[2001:db8::1]:99"), (HostArgument{"2001:db8::1", 99}));
    EXPECT_EQ(parseHost("2001:db8::1"), (HostArgument{"2001:db8::1", std::nullopt}));
    for (const char* text : {"", "a:0", "a:", ":9", "a b", "a:65536", "[a]:1"})
        EXPECT_FALSE(parseHost(text)) << text;
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
