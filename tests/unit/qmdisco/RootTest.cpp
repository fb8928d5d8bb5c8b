// The directories under the root, the privilege that the store needs, and the report on the
// configuration.

#include "Root.h"

#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ConfigReport.h"
#include "TestRoot.h"
#include "support/Capture.h"

using namespace Veltrane::Quillmark;
using namespace Veltrane::Quillmark::Qmdisco;
using QmTest::LogCapture;
using QmTest::TestRoot;
using Texts = std::vector<std::string>;

namespace {

class RootTest : public testing::Test
{
  protected:
    std::string conf() const { return m_root.path("etc/qm.conf"); }
    TestRoot m_root;
};

TEST_F(RootTest, MissingDirectoriesAreMade)
{
    const std::string root = m_root.path("a/b");
    EXPECT_TRUE(prepareDirectories(root));
    for (const char* name : {"a/b/run", "a/b/logs", "a/b/db/discovery"})
        EXPECT_TRUE(std::filesystem::is_directory(m_root.path(name))) << name;
    EXPECT_TRUE(prepareDirectories(root)) << "they may be there";
}

TEST_F(RootTest, OnlyTheGroupMayLookOnAndNobodySeesTheStore)
{
    ::umask(0);
    EXPECT_TRUE(prepareDirectories(m_root.path("a/b")));
    const auto modeOf = [this](const std::string& name) {
        return static_cast<unsigned>(std::filesystem::status(m_root.path(name)).permissions());
    };
    for (const auto& [name, mode] : {std::pair{"a", 0755u},
                                     {"a/b", 0755u},
                                     {"a/b/run", 0750u},
                                     {"a/b/logs", 0750u},
                                     {"a/b/db", 0700u},
                                     {"a/b/db/discovery", 0755u}})
        EXPECT_EQ(mode, modeOf(name)) << name;
    ASSERT_EQ(0, ::chmod(m_root.path("a/b/logs").c_str(), 0777));
    EXPECT_TRUE(prepareDirectories(m_root.path("a/b")));
    EXPECT_EQ(0777u, modeOf("a/b/logs")) << "what is there belongs to the administrator";
}

TEST_F(RootTest, DirectoriesThatOthersMayWriteAreNamed)
{
    ASSERT_TRUE(prepareDirectories(m_root.path()));
    EXPECT_EQ(Texts{}, writableByOthers(m_root.path()));
    const std::string store = m_root.path("db/discovery");
    ASSERT_EQ(0, ::chmod(m_root.path("logs").c_str(), 0775));
    ASSERT_EQ(0, ::chmod(store.c_str(), 01777));
    EXPECT_EQ((Texts{"others may write " + m_root.path("logs") + " (mode 0775)",
                     "others may write " + store + " (mode 1777)"}),
              writableByOthers(m_root.path()));
    ASSERT_EQ(0, ::chmod(m_root.path().c_str(), 0777));
    EXPECT_EQ(Texts{"others may write " + m_root.path() + " (mode 0777)"},
              writableByOthers(m_root.path()))
        << "one line, although all directories are below it";
}

TEST_F(RootTest, AFileInTheWayIsNamed)
{
    m_root.write("logs", "");
    const auto prepared = prepareDirectories(m_root.path());
    ASSERT_FALSE(prepared);
    EXPECT_EQ(EC_ROOT_UNUSABLE, prepared.error().code);
    EXPECT_EQ("cannot make the directory " + m_root.path("logs") +
                  ": Not a directory; a root that qmdisco can write is expected (--root DIR)",
              prepared.error().text);
}

TEST_F(RootTest, ARootThatIsAFileIsNamed)
{
    m_root.write("file", "");
    const auto prepared = prepareDirectories(m_root.path("file"));
    ASSERT_FALSE(prepared);
    EXPECT_EQ(EC_ROOT_UNUSABLE, prepared.error().code);
    EXPECT_EQ("cannot make the directory " + m_root.path("file/run") +
                  ": Not a directory; a root that qmdisco can write is expected (--root DIR)",
              prepared.error().text);
}

TEST_F(RootTest, PathsAreMadeAbsolute)
{
    ASSERT_EQ(0, ::chdir(m_root.path().c_str()));
    const std::string here = std::filesystem::current_path().string();
    EXPECT_EQ(here + "/x", absolutePath("x").text());
    EXPECT_EQ(here + "/x", absolutePath("./x/").text());
    EXPECT_EQ(here, absolutePath(".").text());
    EXPECT_EQ("/x/y", absolutePath("/x//y/").text());
    EXPECT_EQ("/x/../y", absolutePath("/x/../y").text()) << "x may be a symbolic link";
    EXPECT_EQ("/", absolutePath("/").text());
}

TEST_F(RootTest, WithThePrivilegeNothingStaysBehind)
{
    EXPECT_TRUE(checkPrivilege(m_root.path()));
    EXPECT_TRUE(std::filesystem::is_empty(m_root.path()));
    m_root.write(".privilege", "left by a daemon that was killed");
    EXPECT_TRUE(checkPrivilege(m_root.path()));
    EXPECT_TRUE(std::filesystem::is_empty(m_root.path()));
}

/// Runs the check as a user without capabilities, who owns the directory.
[[noreturn]] void checkAsNobody(const std::string& directory)
{
    constexpr uid_t NOBODY = 65534;
    if (::chown(directory.c_str(), NOBODY, NOBODY) != 0 || ::setgid(NOBODY) != 0 ||
        ::setuid(NOBODY) != 0)
        ::_exit(1);
    const auto allowed = checkPrivilege(directory);
    std::fprintf(stderr, "%s\n", allowed ? "no failure" : allowed.error().text.c_str());
    ::_exit(allowed ? EC_OK : allowed.error().code);
}

TEST_F(RootTest, WithoutThePrivilegeTheDirectoryIsNamed)
{
    EXPECT_EXIT(checkAsNobody(m_root.path()), testing::ExitedWithCode(EC_NO_PRIVILEGE),
                "^cannot reopen a file with permissions 0 in " + m_root.path() +
                    ": Permission denied; run qmdisco as root or with CAP_DAC_OVERRIDE\n$");
    EXPECT_TRUE(std::filesystem::is_empty(m_root.path()));
}

TEST_F(RootTest, AStoreThatCannotBeWrittenIsNamed)
{
    const auto allowed = checkPrivilege(m_root.path("absent"));
    ASSERT_FALSE(allowed);
    EXPECT_EQ(EC_ROOT_UNUSABLE, allowed.error().code);
    EXPECT_EQ("cannot make the file " + m_root.path("absent/.privilege") +
                  ": No such file or directory; a root that qmdisco can write is expected (--root "
                  "DIR)",
              allowed.error().text);
}

TEST_F(RootTest, AGoodConfigurationIsOk)
{
    m_root.write("etc/qm.conf", "# nothing\nLOG_LEVEL = 3\n");
    std::ostringstream out;
    EXPECT_EQ(EC_OK, checkConfig(out));
    EXPECT_EQ(conf() + ": OK\n", out.str());
}

TEST_F(RootTest, EveryProblemOfTheConfigurationIsALine)
{
    m_root.write("etc/qm.conf", "LOG_LEVEL = 12\nSERVER = host1\nnonsense\n");
    std::ostringstream out;
    EXPECT_EQ(EC_CONFIGURATION, checkConfig(out));
    EXPECT_EQ(conf() + ":1: LOG_LEVEL: '12' is out of range, expected 0 to 9\n" + conf() +
                  ":3: 'nonsense' is not KEY = value\n",
              out.str());
}

TEST_F(RootTest, AnAbsentConfigurationIsAProblem)
{
    std::ostringstream out;
    EXPECT_EQ(EC_CONFIGURATION, checkConfig(out));
    EXPECT_EQ(conf() + ": cannot be read: No such file or directory\n", out.str());
}

TEST_F(RootTest, AConfigurationThatOthersMayWriteIsAProblem)
{
    m_root.write("etc/qm.conf", "LOG_LEVEL = 12\n");
    ASSERT_EQ(0, ::chmod(conf().c_str(), 0666));
    std::ostringstream out;
    EXPECT_EQ(EC_CONFIGURATION, checkConfig(out));
    const std::string warning = conf() + ": others may write " + conf() + " (mode 0666)";
    const std::string mistake = conf() + ":1: LOG_LEVEL: '12' is out of range, expected 0 to 9";
    EXPECT_EQ(mistake + "\n" + warning + "\n", out.str());
    const LogCapture log;
    logConfigProblems(ConfigRead::First);
    EXPECT_EQ((Texts{warning, mistake}), log.texts(Tlx::LOG_LEVEL_FAILURE));
    EXPECT_THAT(log.severities(warning), testing::ElementsAre(Tlx::LogSeverity::Warning));
    EXPECT_THAT(log.severities(mistake), testing::ElementsAre(Tlx::LogSeverity::Error));
}

TEST_F(RootTest, AConfigurationInADirectoryThatOthersMayWriteIsAProblem)
{
    m_root.write("etc/qm.conf", "");
    ASSERT_EQ(0, ::chmod(m_root.path("etc").c_str(), 0777));
    std::ostringstream out;
    EXPECT_EQ(EC_CONFIGURATION, checkConfig(out));
    EXPECT_EQ(conf() + ": others may write " + m_root.path("etc") + " (mode 0777)\n", out.str());
}

TEST_F(RootTest, ProblemsAreLoggedAtLevelOne)
{
    m_root.write("etc/qm.conf", "LOG_LEVEL = 12\nnonsense\n");
    Tlx::HostConfig::instance().read();
    const LogCapture log;
    logConfigProblems(ConfigRead::First);
    EXPECT_EQ((Texts{conf() + ":1: LOG_LEVEL: '12' is out of range, expected 0 to 9",
                     conf() + ":2: 'nonsense' is not KEY = value"}),
              log.texts(Tlx::LOG_LEVEL_FAILURE));
}

TEST_F(RootTest, AnAbsentConfigurationIsProgressAtTheStartAndAFailureLater)
{
    Tlx::HostConfig::instance().read();
    LogCapture log;
    const Texts line{conf() + ": cannot be read: No such file or directory"};
    logConfigProblems(ConfigRead::First);
    EXPECT_EQ(Texts{}, log.texts(Tlx::LOG_LEVEL_FAILURE));
    EXPECT_EQ(line, log.texts(Tlx::LOG_LEVEL_PROGRESS));
    log.clear();
    logConfigProblems(ConfigRead::Again);
    EXPECT_EQ(line, log.texts(Tlx::LOG_LEVEL_FAILURE));
}

TEST_F(RootTest, AnUnreadableConfigurationIsAFailureAtTheStart)
{
    m_root.makeDirectory("etc/qm.conf");
    Tlx::HostConfig::instance().read();
    const LogCapture log;
    logConfigProblems(ConfigRead::First);
    EXPECT_EQ(Texts{conf() + ": cannot be read: it is not a regular file"},
              log.texts(Tlx::LOG_LEVEL_FAILURE));
}

} // namespace
