// run/status.json as the command line reads it.

#include "StatusDocument.h"

#include <filesystem>
#include <fstream>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <tlx/HostConfig.h>

namespace Veltrane::Quillmark::Qmdiscoctl {
namespace {

namespace fs = std::filesystem;

struct StatusDocumentTest : testing::Test
{
    StatusDocumentTest()
    {
        std::string name = (fs::temp_directory_path() / "qmtest.XXXXXX").string();
        EXPECT_NE(::mkdtemp(name.data()), nullptr);
        root = name;
        fs::create_directory(root / "run");
    }
    ~StatusDocumentTest() override { fs::remove_all(root); }

    StatusDocument read() const { return readStatusDocument(Tlx::TlxPathname(root.string())); }
    StatusDocument readAs(const std::string& text) const
    {
        std::ofstream(root / "run" / "status.json", std::ios::binary) << text;
        return read();
    }

    fs::path root;
};

TEST_F(StatusDocumentTest, ADocumentOfARunningProcessIsCurrent)
{
    const StatusDocument status =
        readAs(R"({"role": "master", "pid": )" + std::to_string(::getpid()) + R"(, "odd": [1]})");
    EXPECT_EQ(status.path, (root / "run" / "status.json").string());
    EXPECT_TRUE(status.isCurrent());
    EXPECT_EQ(status.pid, ::getpid());
    EXPECT_EQ(status.text("role"), "master");
    EXPECT_EQ(status.text("pid"), "");
    EXPECT_EQ(status.text("none"), "");
    EXPECT_EQ(status.members["odd"][0], 1);
}

TEST_F(StatusDocumentTest, ADocumentOfAProcessThatEndedIsStale)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(0);
    siginfo_t info;
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    const StatusDocument waiting = readAs(R"({"pid": )" + std::to_string(child) + "}");
    EXPECT_TRUE(waiting.found);
    EXPECT_TRUE(waiting.stale) << "it has ended and waits for its parent";
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_TRUE(read().stale);
    EXPECT_FALSE(read().isCurrent());
    EXPECT_TRUE(readAs("{}").stale);
    EXPECT_TRUE(readAs(R"({"pid": -1})").stale);
    EXPECT_TRUE(readAs(R"({"pid": 99999999999})").stale);
}

TEST_F(StatusDocumentTest, NoDocumentIsNoProblem)
{
    EXPECT_FALSE(read().found);
    EXPECT_EQ(read().problem, "");
    fs::remove_all(root / "run");
    EXPECT_FALSE(read().found);
}

TEST_F(StatusDocumentTest, WhatIsNoDocumentIsSaid)
{
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    for (const std::string& text :
         {std::string(), std::string("x"), std::string("[]"), std::string(R"({"pid": 1)"),
          R"({"a": )" + deep + "}", R"({"a": ")" + std::string(2 << 20, 'x') + "\"}"}) {
        const StatusDocument status = readAs(text);
        EXPECT_TRUE(status.found);
        EXPECT_EQ(status.problem, "is not the status of a service");
        EXPECT_TRUE(status.members.empty());
        EXPECT_FALSE(status.isCurrent());
    }
}

TEST_F(StatusDocumentTest, APipeInItsPlaceKeepsNobodyWaiting)
{
    ASSERT_EQ(::mkfifo((root / "run" / "status.json").c_str(), 0600), 0);
    const StatusDocument status = read();
    EXPECT_TRUE(status.found);
    EXPECT_EQ(status.problem, "cannot be read: Invalid argument");
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
