// Lists in the host configuration. A mistake must not make a list more open than it was meant.

#include <tlx/HostConfig.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "DeclaredKeys.h"
#include "support/TemporaryDirectory.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using QmTest::Lines;

constexpr DeclaredKey MAY =
    DeclaredKey::list(
        "MAY.read", [](const std::string& entry) { return entry.starts_with("good"); },
        "is left out, expected good...", "good*, goods")
        .takenWhileRunning();
constexpr std::array LIST_KEYS{MAY};

struct HostConfigListTest : testing::Test
{
    HostConfigListTest() { config().declare(LIST_KEYS); }

    static Lines entries() { return config().list(MAY); }
};

TEST_F(HostConfigListTest, CommasAndBlanksSeparate)
{
    EXPECT_EQ(problemsOf("MAY.read = good1,good2 good3\tgood4 , ,, good5 ,\n"), Lines{});
    EXPECT_EQ(entries(), (Lines{"good1", "good2", "good3", "good4", "good5"}));
}

TEST_F(HostConfigListTest, WithoutALineTheDefaultHolds)
{
    EXPECT_EQ(problemsOf(""), Lines{});
    EXPECT_EQ(entries(), (Lines{"good*", "goods"}));
}

TEST_F(HostConfigListTest, AnEmptyListIsEmpty)
{
    EXPECT_EQ(problemsOf("MAY.read =\n"), Lines{});
    EXPECT_EQ(entries(), Lines{});
}

TEST_F(HostConfigListTest, AWrongEntryIsLeftOutAndTheOthersHold)
{
    EXPECT_EQ(problemsOf("MAY.read = good1 bad1 good2 bad2\n"),
              Lines{"qm.conf:1: MAY.read: 'bad1' is left out, expected good..."});
    EXPECT_EQ(entries(), (Lines{"good1", "good2"}));
    EXPECT_EQ(problemsOf("MAY.read = bad\n"),
              Lines{"qm.conf:1: MAY.read: 'bad' is left out, expected good..."});
    EXPECT_EQ(entries(), Lines{});
}

TEST_F(HostConfigListTest, TheLastLineCounts)
{
    EXPECT_EQ(problemsOf("MAY.read = good1\nMAY.read = bad good2\n"),
              Lines{"qm.conf:2: MAY.read: 'bad' is left out, expected good..."});
    EXPECT_EQ(entries(), Lines{"good2"});
}

TEST_F(HostConfigListTest, ALineThatCannotBeReadIsAnEmptyList)
{
    for (const std::string& value :
         {std::string("= good1\x01"), std::string("= good1 \xff"), std::string(),
          "= good1 " + std::string(4096, ' ') + "good2"}) {
        EXPECT_EQ(problemsOf("MAY.read = good0\nMAY.read " + value + "\n").size(), 1u) << value;
        EXPECT_EQ(entries(), Lines{}) << value;
    }
    EXPECT_EQ(problemsOf("# MAY.read = \x01\nMAY.readx = \x01\n").size(), 1u);
    EXPECT_EQ(entries(), (Lines{"good*", "goods"})) << "another key";
}

TEST_F(HostConfigListTest, AFileThatIsThereAndCannotBeReadIsAnEmptyList)
{
    const QmTest::TemporaryDirectory root;
    config().setRoot(root.path().string());
    std::filesystem::create_directory(root.path() / "etc");
    EXPECT_FALSE(config().read());
    EXPECT_EQ(entries(), (Lines{"good*", "goods"})) << "there is no file";
    std::filesystem::create_directory(root.path() / "etc/qm.conf");
    EXPECT_FALSE(config().read());
    EXPECT_EQ(entries(), Lines{});
    std::filesystem::remove(root.path() / "etc/qm.conf");
    std::ofstream(root.path() / "etc/qm.conf") << "MAY.read = good7\n";
    EXPECT_TRUE(config().readAgain());
    EXPECT_EQ(entries(), Lines{"good7"});
    std::filesystem::remove(root.path() / "etc/qm.conf");
    EXPECT_FALSE(config().readAgain());
    EXPECT_EQ(entries(), Lines{"good7"}) << "a running process keeps what it has";
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
