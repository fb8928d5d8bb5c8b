// run/status.json as the command line reads it.

#include "StatusDocument.h"

#include <filesystem>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <tlx/HostConfig.h>

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace Veltrane::Quillmark::Qmdiscoctl {
namespace {

namespace fs = std::filesystem;

struct StatusDocumentTest : testing::Test
{
    StatusDocumentTest() { fs::create_directory(root / "run"); }

    StatusDocument read() const { return readStatusDocument(Tlx::TlxPathname(root.string())); }
    StatusDocument readAs(const std::string& text) const
    {
        QmTest::writeFile(root / "run" / "status.json", text);
        return read();
    }

    const QmTest::TemporaryDirectory directory;
    const fs::path& root = directory.path();
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
    QmTest::ChildProcess child([] { return 0; });
    child.awaitEnd();
    const StatusDocument waiting = readAs(R"({"pid": )" + std::to_string(child.pid()) + "}");
    EXPECT_TRUE(waiting.found);
    EXPECT_TRUE(waiting.stale) << "it has ended and waits for its parent";
    ASSERT_EQ(child.exitCode(), 0);
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

TEST_F(StatusDocumentTest, AWrongDocumentIsReported)
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

TEST_F(StatusDocumentTest, WhoMayReadItIsSaidToThoseWhoMayNot)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can give its rights up for a while";
    constexpr uid_t NOBODY = 65534;
    constexpr gid_t MAIL = 8;        // Debian has this group everywhere
    constexpr gid_t UNKNOWN = 54321; // and no group of this number
    const std::string run = (root / "run").string();
    QmTest::writeFile(root / "run" / "status.json", "{}");
    ASSERT_EQ(::chmod(root.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(run.c_str(), 0750), 0);
    const auto problemAsNobody = [&](gid_t group) {
        EXPECT_EQ(::chown(run.c_str(), 0, group), 0);
        EXPECT_EQ(::setegid(NOBODY), 0);
        EXPECT_EQ(::seteuid(NOBODY), 0);
        const StatusDocument status = read();
        EXPECT_EQ(::seteuid(0), 0);
        EXPECT_EQ(::setegid(0), 0);
        EXPECT_TRUE(status.found);
        return status.problem;
    };
    const std::string denied = "cannot be read: Permission denied; only root";
    EXPECT_EQ(problemAsNobody(0), denied + " may read it");
    EXPECT_EQ(problemAsNobody(MAIL), denied + " and the group mail may read it");
    EXPECT_EQ(problemAsNobody(UNKNOWN), denied + " and the group 54321 may read it");
    ASSERT_EQ(::chmod(run.c_str(), 0700), 0);
    EXPECT_EQ(problemAsNobody(MAIL), denied + " may read it");
}

TEST_F(StatusDocumentTest, APipeInItsPlaceIsNotWaitedFor)
{
    ASSERT_EQ(::mkfifo((root / "run" / "status.json").c_str(), 0600), 0);
    const StatusDocument status = read();
    EXPECT_TRUE(status.found);
    EXPECT_EQ(status.problem, "cannot be read: Invalid argument");
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
