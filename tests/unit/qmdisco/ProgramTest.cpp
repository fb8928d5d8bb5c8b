// The program: its options and its output.

#include "Daemon.h"

#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DaemonFixture.h"

using namespace Veltrane::Quillmark;
using namespace Veltrane::Quillmark::Qmdisco;
using testing::ElementsAre;

namespace {

class ProgramTest : public QmTest::DaemonFixture
{
  protected:
    int program(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "qmdisco");
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        return runProgram(static_cast<int>(arguments.size()), argv.data(), m_hosted);
    }
};

TEST_F(ProgramTest, ARelativeRootIsMadeAbsolute)
{
    m_root.makeDirectory("sub");
    ASSERT_EQ(0, ::chdir(m_root.path().c_str()));
    const std::string here = std::filesystem::current_path().string();
    EXPECT_EQ(EC_OK, program({"--foreground", "--root", "sub"}));
    EXPECT_EQ(here + "/sub", nlohmann::json::parse(m_root.read("sub/run/status.json"))["root"]);
}

TEST_F(ProgramTest, CheckConfigStartsNothing)
{
    m_root.write("etc/qm.conf", "LOG_LEVEL = high\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(EC_CONFIGURATION, program({"--check-config", "--root", m_root.path()}));
    EXPECT_EQ(m_root.path("etc/qm.conf") +
                  ":1: LOG_LEVEL: 'high' is not a number, expected 0 to 9\n",
              testing::internal::GetCapturedStdout());
    EXPECT_THAT(m_script.calls, ElementsAre());
    EXPECT_FALSE(m_root.exists("run"));
}

TEST_F(ProgramTest, AWrongOptionIsOneLineOnStandardError)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(EC_USAGE, program({"--nonsense"}));
    EXPECT_EQ("qmdisco: The following argument was not expected: --nonsense (\"qmdisco --help\" "
              "shows the options)\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(ProgramTest, HelpGoesToStandardOutput)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(EC_OK, program({"--help"}));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr("Exit codes:"));
    EXPECT_FALSE(m_root.exists("run"));
}

} // namespace
