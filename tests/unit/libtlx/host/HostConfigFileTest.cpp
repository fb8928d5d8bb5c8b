// The file of the host configuration: where it is, and how it is read.

#include <tlx/HostConfig.h>

#include <filesystem>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "DeclaredKeys.h"
#include "support/TemporaryDirectory.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using QmTest::Lines;

struct HostConfigFileTest : testing::Test
{
    HostConfigFileTest()
    {
        std::filesystem::create_directory(root / "etc");
        config().setRoot(root.string());
    }
    std::string file() const { return directory.path("etc/qm.conf"); }
    const QmTest::TemporaryDirectory directory;
    const std::filesystem::path& root = directory.path();
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

TEST_F(HostConfigFileTest, AFileThatCannotBeReadConfiguresNothingAndIsReportedOnce)
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

TEST_F(HostConfigFileTest, ARunningProcessTakesOnlyTheKeysThatSayIt)
{
    std::ofstream(file()) << "LOG_LEVEL = 6\nLOG_KEEP = 6\nSERVER = one\n";
    EXPECT_TRUE(config().read());
    std::ofstream(file()) << "\nLOG_LEVEL = 7\nLOG_KEEP = 7\nSERVER = two\nx\n";
    EXPECT_TRUE(config().readAgain());
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 7u);
    EXPECT_EQ(config().placeOf(ConfigKey::LOG_LEVEL), file() + ":2");
    EXPECT_EQ(config().number(ConfigKey::LOG_KEEP), 6u);
    EXPECT_EQ(config().getString(ConfigKey::SERVER), "one");
    EXPECT_EQ(problems(), Lines{file() + ":5: 'x' is not KEY = value"});
    // A key that is no longer in the file gets its default.
    std::ofstream(file()) << "\n";
    EXPECT_TRUE(config().readAgain());
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 1u);
    EXPECT_EQ(config().number(ConfigKey::LOG_KEEP), 6u);
    EXPECT_EQ(problems(), Lines{});
    std::filesystem::remove(file());
    EXPECT_FALSE(config().readAgain());
    EXPECT_EQ(config().number(ConfigKey::LOG_KEEP), 6u);
    EXPECT_EQ(problems(), Lines{file() + ": cannot be read: No such file or directory"});
}

TEST_F(HostConfigFileTest, WithoutADirectoryThereIsNoFile)
{
    std::filesystem::remove_all(root);
    EXPECT_FALSE(config().read());
    EXPECT_EQ(problems(), Lines{file() + ": cannot be read: No such file or directory"});
}

TEST_F(HostConfigFileTest, APermissionThatLacksIsNamed)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can give its rights up for a while";
    std::ofstream(file()) << "LOG_LEVEL = 6\n";
    ASSERT_EQ(::chmod(file().c_str(), 0), 0);
    ASSERT_EQ(::chmod(root.c_str(), 0755), 0);
    constexpr uid_t NOBODY = 65534;
    ASSERT_EQ(::seteuid(NOBODY), 0);
    const bool read = config().read();
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_FALSE(read);
    EXPECT_EQ(problems(), Lines{file() + ": cannot be read: Permission denied"});
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 1u);
}

TEST_F(HostConfigFileTest, AHugeFileIsRefused)
{
    std::ofstream(file()) << "LOG_LEVEL = 6\n";
    // The file has a hole, so it takes no space.
    std::filesystem::resize_file(file(), std::uintmax_t{1} << 40);
    EXPECT_FALSE(config().read());
    EXPECT_EQ(problems(), Lines{file() + ": cannot be read: it is larger than 1048576 bytes"});
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 1u);
}

TEST_F(HostConfigFileTest, AnotherRootCountsFromTheNextRead)
{
    std::ofstream(file()) << "LOG_LEVEL = 6\n";
    EXPECT_TRUE(config().read());
    config().setRoot((root / "other").string());
    EXPECT_EQ(config().configFile(), TlxPathname((root / "other/etc/qm.conf").string()));
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 6u);
    EXPECT_FALSE(config().read());
    EXPECT_EQ(config().number(ConfigKey::LOG_LEVEL), 1u);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
