// The host configuration: its lines, its values and the messages about mistakes.

#include <tlx/HostConfig.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <thread>

#include <unistd.h>

#include <gtest/gtest.h>

#include "DeclaredKeys.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using QmTest::Lines;

// This test comes first, because no test can unset the root later.
TEST(HostConfigRootTest, IsTheEnvironmentsOrTheProductsOwn)
{
    ASSERT_EQ(::unsetenv("QUILLMARK_ROOT"), 0);
    EXPECT_EQ(config().root(), TlxPathname("/usr/varix/quillmark"));
    EXPECT_EQ(config().configFile(), TlxPathname("/usr/varix/quillmark/etc/qm.conf"));
    ASSERT_EQ(::setenv("QUILLMARK_ROOT", "/elsewhere", 1), 0);
    EXPECT_EQ(config().root(), TlxPathname("/elsewhere"));
    ASSERT_EQ(::setenv("QUILLMARK_ROOT", "", 1), 0);
    EXPECT_EQ(config().root(), TlxPathname("/usr/varix/quillmark"));
    config().setRoot("/told");
    EXPECT_EQ(config().root(), TlxPathname("/told"));
}

TEST(HostConfigTest, AProblemIsReportedWithItsLineIfItHasOne)
{
    EXPECT_EQ((HostConfig::Problem{"a/qm.conf", 3, "wrong"}).toText(), "a/qm.conf:3: wrong");
    EXPECT_EQ((HostConfig::Problem{"a/qm.conf", 0, "wrong"}).toText(), "a/qm.conf: wrong");
}

TEST(HostConfigTest, WithoutATextEveryKeyHasItsDefault)
{
    config().readText("", "qm.conf");
    EXPECT_FALSE(config().getString(ConfigKey::SERVER));
    EXPECT_FALSE(config().getBoolean(ConfigKey::REPORT_CLIENT_DISCOVERIES));
    EXPECT_FALSE(config().getNumber(ConfigKey::LOG_LEVEL));
    EXPECT_EQ(config().listenEndpoint(), (Endpoint{"0.0.0.0", 14400}));
    EXPECT_EQ(config().endpointOf("other"), (Endpoint{"other", 14400}));
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 1u);
    EXPECT_EQ(config().number(ConfigKey::LOG_KEEP), 5u);
    EXPECT_EQ(config().number(ConfigKey::REPORT_CLIENT_DISCOVERIES), 0u) << "no number";
    EXPECT_FALSE(config().isMaster());
    char name[256] = "";
    ASSERT_EQ(::gethostname(name, sizeof name - 1), 0);
    EXPECT_EQ(config().localHostName(), name);
}

TEST(HostConfigTest, ReadsKeysCommentsAndBlankLines)
{
    EXPECT_EQ(problemsOf("\xef\xbb\xbf# a comment\r\n\n  SERVER=backup1 \r\n\tCLIENT_NAME = cl5\n"
                         "LISTEN = 127.0.0.1:0\nLOG_LEVEL = 4\nREPORT_CLIENT_DISCOVERIES = Off\n"
                         "ENDPOINT.Backup1 = 192.0.2.7:99"),
              Lines{});
    EXPECT_EQ(config().getString(ConfigKey::SERVER), "backup1");
    EXPECT_EQ(config().localHostName(), "cl5");
    EXPECT_EQ(config().listenEndpoint(), (Endpoint{"127.0.0.1", 0}));
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 4u);
    EXPECT_EQ(config().getBoolean(ConfigKey::REPORT_CLIENT_DISCOVERIES), false);
    EXPECT_EQ(config().endpointOf("BACKUP1"), (Endpoint{"192.0.2.7", 99}));
    EXPECT_EQ(config().getEndpointOf("bAckup1"), (Endpoint{"192.0.2.7", 99}));
    EXPECT_FALSE(config().getEndpointOf("backup2"));
}

TEST(HostConfigTest, BooleansHaveFourWordsEach)
{
    for (const char* word : {"TRUE", "Yes", "1", "on", "FALSE", "No", "0", "oFF"}) {
        EXPECT_EQ(problemsOf(std::string("REPORT_CLIENT_DISCOVERIES = ") + word), Lines{}) << word;
        const std::string text = word;
        EXPECT_EQ(config().getBoolean(ConfigKey::REPORT_CLIENT_DISCOVERIES),
                  text == "TRUE" || text == "Yes" || text == "1" || text == "on")
            << word;
    }
}

TEST(HostConfigTest, TheLastLineWithAKeyCounts)
{
    problemsOf("SERVER = one\nSERVER = two\n");
    EXPECT_EQ(config().getString(ConfigKey::SERVER), "two");
    // A line without effect is checked too.
    EXPECT_EQ(problemsOf("LOG_LEVEL = 4\nLOG_LEVEL = x\n"),
              Lines{"qm.conf:2: LOG_LEVEL: 'x' is not a number, expected 0 to 9"});
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 1u);
}

TEST(HostConfigTest, EachProblemNamesFileLineAndExpectation)
{
    EXPECT_EQ(problemsOf("nonsense"), Lines{"qm.conf:1: 'nonsense' is not KEY = value"});
    EXPECT_EQ(problemsOf("\nFOO = 1"), Lines{"qm.conf:2: unknown key 'FOO'"});
    EXPECT_EQ(problemsOf("server = a"), Lines{"qm.conf:1: unknown key 'server'"});
    EXPECT_EQ(problemsOf("SERVER ="), Lines{"qm.conf:1: SERVER: '' is not a host name, expected "
                                            "for instance backup1.example.com"});
    EXPECT_EQ(problemsOf("CLIENT_NAME = a b"),
              Lines{"qm.conf:1: CLIENT_NAME: 'a b' is not a host name, expected for instance "
                    "client7.example.com"});
    EXPECT_EQ(problemsOf("PUBLISH_ADDRESS = 1.2.3"),
              Lines{"qm.conf:1: PUBLISH_ADDRESS: '1.2.3' is not a host name, expected for instance "
                    "192.0.2.7"});
    EXPECT_EQ(problemsOf("LISTEN = 14400"),
              Lines{"qm.conf:1: LISTEN: '14400' is not ADDRESS:PORT, expected for instance "
                    "0.0.0.0:14400"});
    EXPECT_EQ(problemsOf("ENDPOINT.Cl5 = x"),
              Lines{"qm.conf:1: ENDPOINT.cl5: 'x' is not ADDRESS:PORT, expected for instance "
                    "192.0.2.7:14400"});
    EXPECT_EQ(problemsOf("ENDPOINT.cl5 = a:0"),
              Lines{"qm.conf:1: ENDPOINT.cl5: 'a:0' has port 0, expected 1 to 65535"});
    EXPECT_EQ(problemsOf("ENDPOINT. = a:1"),
              Lines{"qm.conf:1: ENDPOINT.: '' is not a host name, expected for instance "
                    "ENDPOINT.backup1"});
    EXPECT_EQ(problemsOf("LOG_LEVEL = 10"),
              Lines{"qm.conf:1: LOG_LEVEL: '10' is out of range, expected 0 to 9"});
    EXPECT_EQ(problemsOf("LOG_KEEP = 99999999999999999999999"),
              Lines{"qm.conf:1: LOG_KEEP: '99999999999999999999999' is not a number, expected 1 "
                    "to 100"});
    EXPECT_EQ(problemsOf("LOG_KEEP = 0"),
              Lines{"qm.conf:1: LOG_KEEP: '0' is out of range, expected 1 to 100"});
    EXPECT_EQ(problemsOf("LOG_KEEP = -1"),
              Lines{"qm.conf:1: LOG_KEEP: '-1' is not a number, expected 1 to 100"});
    EXPECT_EQ(problemsOf("COLOUR = green"),
              Lines{"qm.conf:1: COLOUR: 'green' is no colour, expected for instance red"});
    EXPECT_EQ(problemsOf("REPORT_CLIENT_DISCOVERIES = maybe"),
              Lines{"qm.conf:1: REPORT_CLIENT_DISCOVERIES: 'maybe' is not a boolean, expected TRUE "
                    "or FALSE"});
}

TEST(HostConfigTest, WhatIsNoTextIsAProblemOfItsLineOnly)
{
    EXPECT_EQ(problemsOf(std::string("SERVER = a\0b\nLOG_LEVEL = 2\n", 27)),
              Lines{"qm.conf:1: the line holds a control character, expected KEY = value"});
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 2u);
    EXPECT_EQ(problemsOf("SERVER = \xff\n"),
              Lines{"qm.conf:1: the line is not UTF-8 text, expected KEY = value"});
    EXPECT_EQ(problemsOf("LOG_LEVEL = 2\x7f\n"),
              Lines{"qm.conf:1: the line holds a control character, expected KEY = value"});
    const std::string tooLong(4097, 'x');
    EXPECT_EQ(problemsOf(tooLong + "\nLOG_LEVEL = 3\n"),
              Lines{"qm.conf:1: the line is longer than 4096 bytes"});
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 3u);
    EXPECT_EQ(problemsOf("LOG_LEVEL = 4" + std::string(4083, ' ') + "\r\n"), Lines{});
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 4u);
    // A carriage return ends a line only before a line feed or the end.
    EXPECT_EQ(problemsOf("LOG_LEVEL = 5\rLOG_KEEP = 7\r"),
              Lines{"qm.conf:1: the line holds a control character, expected KEY = value"});
    EXPECT_EQ(problemsOf("LOG_LEVEL = 5\r"), Lines{});
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 5u);
}

TEST(HostConfigTest, AWrongValueIsNoValue)
{
    const std::string text = "SERVER = a b\nCLIENT_NAME = -x\nLISTEN = x\nPUBLISH_ADDRESS = [::1]\n"
                             "REPORT_CLIENT_DISCOVERIES = 2\nENDPOINT.m = m\n";
    EXPECT_EQ(problemsOf(text).size(), 6u);
    for (const DeclaredKey& key :
         {ConfigKey::SERVER, ConfigKey::CLIENT_NAME, ConfigKey::LISTEN, ConfigKey::PUBLISH_ADDRESS,
          ConfigKey::REPORT_CLIENT_DISCOVERIES, ConfigKey::ENDPOINT_OF_HOST})
        EXPECT_FALSE(config().getString(key)) << key.name();
    EXPECT_FALSE(config().getBoolean(ConfigKey::REPORT_CLIENT_DISCOVERIES));
    EXPECT_EQ(config().listenEndpoint(), (Endpoint{"0.0.0.0", 14400}));
    EXPECT_EQ(config().endpointOf("m"), (Endpoint{"m", 14400}));
}

TEST(HostConfigTest, AValueOfAnotherKindIsNotTaken)
{
    config().readText("SERVER = backup1\n", "qm.conf");
    EXPECT_FALSE(config().getBoolean(ConfigKey::SERVER));
    EXPECT_FALSE(config().getNumber(ConfigKey::SERVER));
}

TEST(HostConfigTest, AddressesOfBothFamiliesAreTaken)
{
    EXPECT_EQ(problemsOf("SERVER = 2001:db8::1\nPUBLISH_ADDRESS = ::1\nLISTEN = [::]:14401\n"
                         "ENDPOINT.2001:DB8::1 = [2001:db8::1]:9\n"),
              Lines{});
    EXPECT_EQ(config().listenEndpoint(), (Endpoint{"::", 14401}));
    EXPECT_EQ(config().endpointOf("2001:db8::1"), (Endpoint{"2001:db8::1", 9}));
}

TEST(HostConfigTest, ReadsMayHappenDuringANewRead)
{
    config().readText("LOG_LEVEL = 2\n", "qm.conf");
    std::atomic<bool> done{false};
    std::thread reader([&done] {
        while (!done) {
            const std::uint64_t level = config().number(ConfigKey::LOG_LEVEL);
            EXPECT_TRUE(level == 2 || level == 3) << level;
            EXPECT_EQ(config().getString(ConfigKey::SERVER).value_or("backup1"), "backup1");
        }
    });
    for (int i = 0; i < 500; ++i)
        config().readText(i % 2 ? "LOG_LEVEL = 2\n" : "SERVER = backup1\nLOG_LEVEL = 3\n",
                          "qm.conf");
    done = true;
    reader.join();
}

TEST(HostConfigTest, ALongValueIsShownCutAtACharactersEnd)
{
    std::string value;
    for (int i = 0; i < 100; ++i)
        value += "é";
    EXPECT_EQ(problemsOf("LOG_LEVEL = " + value),
              Lines{"qm.conf:1: LOG_LEVEL: '" + value.substr(0, 80) +
                    "...' is not a number, expected 0 to 9"});
}

TEST(HostConfigTest, ManyProblemsAreCutShort)
{
    std::string text;
    for (int i = 0; i < 100000; ++i)
        text += "x\n";
    text += "LOG_LEVEL = 3\n";
    const Lines told = problemsOf(text);
    ASSERT_EQ(told.size(), 101u);
    EXPECT_EQ(told[99], "qm.conf:100: 'x' is not KEY = value");
    EXPECT_EQ(told[100], "qm.conf:101: there are more problems, not shown");
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 3u) << "good lines count all the same";
}

TEST(HostConfigTest, AHugeTextIsIgnored)
{
    std::string text = "SERVER = a\n";
    text.resize(1048576, '#');
    EXPECT_EQ(problemsOf(text), Lines{"qm.conf:2: the line is longer than 4096 bytes"});
    EXPECT_TRUE(config().getString(ConfigKey::SERVER));
    EXPECT_EQ(problemsOf(text + '#'),
              Lines{"qm.conf: the file is larger than 1048576 bytes, ignored"});
    EXPECT_FALSE(config().getString(ConfigKey::SERVER));
}

TEST(HostConfigTest, AKeyIsUnknownUntilAComponentDeclaresItAndItsValueCountsAllTheSame)
{
    static constexpr std::array LATER{DeclaredKey::number("LATER", 1, 9, 4),
                                      DeclaredKey::number("LATER_TOO", 1, 9, 4)};
    EXPECT_EQ(problemsOf("LATER = 7\nLATER_TOO = 10\n"),
              (Lines{"qm.conf:1: unknown key 'LATER'", "qm.conf:2: unknown key 'LATER_TOO'"}));
    EXPECT_EQ(config().number(LATER[0]), 7u);
    EXPECT_EQ(config().placeOf(LATER[0]), "qm.conf:1");
    EXPECT_EQ(config().number(LATER[1]), 4u) << "out of range";
    bool flag = true;
    config().readText("LATER = 1\n", "qm.conf");
    EXPECT_EQ(QM_get_config_boolean("LATER", flag), -1) << "undeclared";
    config().declare(LATER);
    EXPECT_EQ(problemsOf("LATER = 7\nLATER_TOO = 10\n"),
              Lines{"qm.conf:2: LATER_TOO: '10' is out of range, expected 1 to 9"});
    EXPECT_EQ(config().number(LATER[0]), 7u);
    EXPECT_EQ(config().number(LATER[1]), 4u);
    flag = false;
    config().readText("LATER = 1\n", "qm.conf");
    EXPECT_EQ(QM_get_config_boolean("LATER", flag), 0);
    EXPECT_TRUE(flag);
}

TEST(HostConfigTest, ATableCountsOnceHoweverOftenItIsDeclared)
{
    const std::size_t before = config().declaredKeys().size();
    config().declare(KEYS);
    EXPECT_EQ(config().declaredKeys().size(), before);
    // A second declaration of the same name changes nothing.
    static constexpr std::array OTHER{DeclaredKey::boolean("LOG_LEVEL")};
    config().declare(OTHER);
    EXPECT_EQ(config().declaredKeys().size(), before);
    EXPECT_EQ(problemsOf("LOG_LEVEL = 9"), Lines{});
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
