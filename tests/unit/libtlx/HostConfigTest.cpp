// The host configuration.

#include <tlx/HostConfig.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <tlx/Resolver.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

HostConfig& config()
{
    return HostConfig::instance();
}

Lines problems()
{
    Lines lines;
    for (const HostConfig::Problem& problem : config().problems())
        lines.push_back(problem.toText());
    return lines;
}

/// What is wrong with one line; empty when nothing is.
Lines problemsOf(const std::string& text)
{
    config().readText(text, "qm.conf");
    return problems();
}

TEST(EndpointTest, IsAnAddressAndAPort)
{
    Endpoint endpoint;
    EXPECT_TRUE(parseEndpoint("backup1.example.com:1", endpoint));
    EXPECT_EQ(endpoint, (Endpoint{"backup1.example.com", 1}));
    EXPECT_TRUE(parseEndpoint("192.0.2.7:65535", endpoint));
    EXPECT_EQ(endpoint, (Endpoint{"192.0.2.7", 65535}));
    EXPECT_TRUE(parseEndpoint("[2001:db8::1]:14400", endpoint));
    EXPECT_EQ(endpoint, (Endpoint{"2001:db8::1", 14400}));
    EXPECT_EQ(toText(endpoint), "[2001:db8::1]:14400");
    EXPECT_EQ(toText(Endpoint{"a", 0}), "a:0");
}

TEST(EndpointTest, AnythingElseIsRefusedAndChangesNothing)
{
    Endpoint endpoint{"before", 7};
    for (const char* text : {"", ":", "a", "a:", ":1", "a:x", "a:65536", "a:-1", "a: 1", "a b:1",
                             "2001:db8::1:1", "[]:1", "[a]:1", "[::1:1", "1.2.3:4", "-a:1", ".a:1"})
        EXPECT_FALSE(parseEndpoint(text, endpoint)) << text;
    EXPECT_EQ(endpoint, (Endpoint{"before", 7}));
}

TEST(HostConfigTest, WithoutATextEveryKeyHasItsDefault)
{
    config().readText("", "qm.conf");
    std::string text = "before";
    bool flag = true;
    std::uint64_t number = 7;
    EXPECT_FALSE(config().getString(ConfigKey::SERVER, text));
    EXPECT_FALSE(config().getBoolean(ConfigKey::REPORT_CLIENT_DISCOVERIES, flag));
    EXPECT_FALSE(config().getNumber(ConfigKey::LOG_LEVEL, number));
    EXPECT_EQ(text, "before");
    EXPECT_TRUE(flag);
    EXPECT_EQ(number, 7u);
    EXPECT_EQ(config().listenEndpoint(), (Endpoint{"0.0.0.0", 14400}));
    EXPECT_EQ(config().endpointOf("other"), (Endpoint{"other", 14400}));
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 1u);
    EXPECT_EQ(config().number(ConfigKey::LOG_MAX_BYTES), 10485760u);
    EXPECT_EQ(config().number(ConfigKey::LOG_KEEP), 5u);
    EXPECT_EQ(config().number(ConfigKey::STOP_LIMIT), 60u);
    EXPECT_EQ(config().number(ConfigKey::MAX_MESSAGE_BYTES), 67108864u);
    EXPECT_EQ(config().number("NONE"), 0u);
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
    std::string server;
    EXPECT_TRUE(config().getString(ConfigKey::SERVER, server));
    EXPECT_EQ(server, "backup1");
    EXPECT_EQ(config().localHostName(), "cl5");
    EXPECT_EQ(config().listenEndpoint(), (Endpoint{"127.0.0.1", 0}));
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 4u);
    bool report = true;
    EXPECT_TRUE(config().getBoolean(ConfigKey::REPORT_CLIENT_DISCOVERIES, report));
    EXPECT_FALSE(report);
    EXPECT_EQ(config().endpointOf("BACKUP1"), (Endpoint{"192.0.2.7", 99}));
    std::string endpoint;
    EXPECT_TRUE(config().getString("ENDPOINT.bAckup1", endpoint));
    EXPECT_EQ(endpoint, "192.0.2.7:99");
}

TEST(HostConfigTest, BooleansHaveFourWordsEach)
{
    for (const char* word : {"TRUE", "Yes", "1", "on", "FALSE", "No", "0", "oFF"}) {
        EXPECT_EQ(problemsOf(std::string("REPORT_CLIENT_DISCOVERIES = ") + word), Lines{}) << word;
        bool flag = false;
        EXPECT_TRUE(config().getBoolean(ConfigKey::REPORT_CLIENT_DISCOVERIES, flag));
        const std::string text = word;
        EXPECT_EQ(flag, text == "TRUE" || text == "Yes" || text == "1" || text == "on") << word;
    }
}

TEST(HostConfigTest, TheLastLineWithAKeyCounts)
{
    problemsOf("SERVER = one\nSERVER = two\n");
    std::string server;
    EXPECT_TRUE(config().getString(ConfigKey::SERVER, server));
    EXPECT_EQ(server, "two");
    // Also when it counts for nothing.
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
              Lines{"qm.conf:1: LOG_KEEP: '99999999999999999999999' is not a number, expected 0 "
                    "to 100"});
    EXPECT_EQ(problemsOf("STOP_LIMIT = 0"),
              Lines{"qm.conf:1: STOP_LIMIT: '0' is out of range, expected 1 to 3600"});
    EXPECT_EQ(problemsOf("MAX_MESSAGE_BYTES = -1"),
              Lines{"qm.conf:1: MAX_MESSAGE_BYTES: '-1' is not a number, expected 65536 to "
                    "1073741824"});
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
    EXPECT_EQ(problemsOf(std::string(100000, 'x') + "\nLOG_LEVEL = 3\n").size(), 1u);
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 3u);
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

TEST(HostConfigTest, ManyProblemsAreTellingEnough)
{
    std::string text;
    for (int i = 0; i < 100000; ++i)
        text += "x\n";
    const Lines told = problemsOf(text);
    EXPECT_LT(told.size(), 1000u);
    EXPECT_NE(told.back().find("there are more problems, not shown"), std::string::npos);
}

TEST(HostConfigTest, AHugeTextIsIgnored)
{
    const Lines told = problemsOf("SERVER = a\n" + std::string(64u << 20, '#'));
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].substr(0, 32), "qm.conf: the file is larger than");
    std::string server;
    EXPECT_FALSE(config().getString(ConfigKey::SERVER, server));
}

struct HostConfigFileTest : testing::Test
{
    HostConfigFileTest()
    {
        std::string name = (std::filesystem::temp_directory_path() / "qmtest.XXXXXX").string();
        EXPECT_NE(::mkdtemp(name.data()), nullptr);
        root = name;
        std::filesystem::create_directory(root / "etc");
        config().setRoot(root.string());
    }
    ~HostConfigFileTest() override { std::filesystem::remove_all(root); }
    std::string file() const { return (root / "etc" / "qm.conf").string(); }
    std::filesystem::path root;
};

TEST_F(HostConfigFileTest, IsReadFromTheProductRoot)
{
    EXPECT_EQ(config().root(), TlxPathname(root.string()));
    EXPECT_EQ(config().configFile(), TlxPathname(file()));
    std::ofstream(file()) << "LOG_LEVEL = 6\nx\n";
    EXPECT_TRUE(config().read());
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 6u);
    EXPECT_EQ(problems(), Lines{file() + ":2: 'x' is not KEY = value"});
    EXPECT_EQ(QM_read_master_config(), 0);
    std::ofstream(file()) << "";
    EXPECT_TRUE(config().read());
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 1u);
    EXPECT_EQ(problems(), Lines{});
}

TEST_F(HostConfigFileTest, WhatCannotBeReadConfiguresNothingAndIsToldOnce)
{
    config().readText("LOG_LEVEL = 6\n", "before");
    EXPECT_FALSE(config().read());
    EXPECT_EQ(problems(), Lines{file() + ": cannot be read: No such file or directory"});
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 1u);
    EXPECT_EQ(QM_read_master_config(), -1);
    std::filesystem::create_directory(file());
    EXPECT_FALSE(config().read());
    EXPECT_EQ(problems(), Lines{file() + ": cannot be read: it is not a regular file"});
    std::filesystem::remove(file());
    ASSERT_EQ(::mkfifo(file().c_str(), 0600), 0);
    EXPECT_FALSE(config().read());
    EXPECT_EQ(problems(), Lines{file() + ": cannot be read: it is not a regular file"});
}

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

struct MasterTest : testing::Test
{
    MasterTest()
    {
        setResolver([](const std::string& host) -> std::vector<std::string> {
            if (host == "alias")
                return {"127.0.0.1"};
            if (host == "far")
                return {"192.0.2.7"};
            return {};
        });
    }
    ~MasterTest() override { setResolver({}); }
    static bool master(const std::string& text)
    {
        config().readText("CLIENT_NAME = here\n" + text, "qm.conf");
        return config().isMaster();
    }
};

TEST_F(MasterTest, IsTheHostThatServerNames)
{
    EXPECT_TRUE(master("SERVER = HERE\n"));
    EXPECT_TRUE(master("SERVER = alias\n"));
    EXPECT_TRUE(master("SERVER = 127.0.0.1\n"));
    EXPECT_TRUE(master("SERVER = ::1\n"));
    EXPECT_FALSE(master("SERVER = far\n"));
    EXPECT_FALSE(master("SERVER = unknown\n"));
    EXPECT_FALSE(master("SERVER = 192.0.2.7\n"));
    EXPECT_FALSE(master(""));
}

TEST_F(MasterTest, WithSeveralHostsOnOneMachineThePortTellsThemApart)
{
    EXPECT_TRUE(master("SERVER = m\nLISTEN = 127.0.0.1:5001\nENDPOINT.m = 127.0.0.1:5001\n"));
    EXPECT_FALSE(master("SERVER = m\nLISTEN = 127.0.0.1:5002\nENDPOINT.m = 127.0.0.1:5001\n"));
}

TEST_F(MasterTest, LocalhostStandsForThisHost)
{
    master("SERVER = here\n");
    EXPECT_TRUE(QM_is_master("localhost"));
    EXPECT_TRUE(QM_is_master("Here"));
    EXPECT_FALSE(QM_is_master("other"));
    EXPECT_FALSE(QM_is_master(nullptr));
    master("SERVER = far\n");
    EXPECT_FALSE(QM_is_master("localhost"));
    EXPECT_TRUE(QM_is_master("FAR"));
    master("");
    EXPECT_FALSE(QM_is_master("localhost"));
}

TEST_F(MasterTest, TheBooleanLookupAnswersAsItsCallersExpect)
{
    bool flag = false;
    master("");
    EXPECT_EQ(QM_get_config_boolean("REPORT_CLIENT_DISCOVERIES", flag), -1);
    EXPECT_EQ(QM_get_config_boolean(nullptr, flag), -1);
    master("REPORT_CLIENT_DISCOVERIES = yes\n");
    EXPECT_EQ(QM_get_config_boolean("REPORT_CLIENT_DISCOVERIES", flag), 0);
    EXPECT_TRUE(flag);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
