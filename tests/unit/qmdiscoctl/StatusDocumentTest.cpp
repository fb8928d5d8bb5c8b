// run/status.json as the command line reads it, and its words for a service that fails.

#include "StatusDocument.h"
#include "Wire.h"

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
        EXPECT_EQ(status.problem, "is no status of a service");
        EXPECT_TRUE(status.members.empty());
        EXPECT_FALSE(status.isCurrent());
    }
}

TEST_F(StatusDocumentTest, APipeInItsPlaceIsNotWaitedFor)
{
    ASSERT_EQ(::mkfifo((root / "run" / "status.json").c_str(), 0600), 0);
    const StatusDocument status = read();
    EXPECT_TRUE(status.found);
    EXPECT_EQ(status.problem, "cannot be read: Invalid argument");
}

TEST(ExplainTest, EveryFailureOfAServiceHasWordsAndItsName)
{
    const auto words = [](const CORBA::SystemException& exception) {
        const std::string text = explain(exception);
        return text.substr(0, text.find(':'));
    };
    EXPECT_EQ(words(CORBA::TRANSIENT()), "nothing accepts the connection");
    EXPECT_EQ(words(CORBA::TIMEOUT()), "no answer within the time limit");
    EXPECT_EQ(words(CORBA::COMM_FAILURE()), "the connection broke");
    EXPECT_EQ(words(CORBA::OBJECT_NOT_EXIST()), "there is no such object");
    EXPECT_EQ(words(CORBA::NO_PERMISSION()), "not permitted");
    EXPECT_EQ(words(CORBA::MARSHAL()), "a message that cannot be understood, or is too large");
    EXPECT_EQ(words(CORBA::NO_MEMORY()), "it has no resources left");
    EXPECT_EQ(words(CORBA::NO_RESOURCES()), "it has no resources left");
    EXPECT_EQ(words(CORBA::INTERNAL()), "it failed");
    EXPECT_NE(explain(CORBA::TIMEOUT()).find("TIMEOUT"), std::string::npos);
    EXPECT_EQ(unreachable("backup1", {"::1", 14400}, "why"),
              (Failure{EC_UNREACHABLE,
                       "cannot reach the discovery service on backup1 ([::1]:14400): why"}));
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
