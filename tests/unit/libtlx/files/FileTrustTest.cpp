// Who may change a file that this process trusts. Root runs these tests, so that files can belong
// to other users.

#include <tlx/FileTrust.h>

#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/TemporaryDirectory.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

namespace fs = std::filesystem;

constexpr uid_t SOMEBODY = 12345;
constexpr uid_t DAEMON = 23456;

struct FileTrustTest : testing::Test
{
    FileTrustTest()
    {
        for (const char* name : {"top", "top/lib", "top/lib/plugins", "elsewhere"}) {
            fs::create_directory(directory.path(name));
            mode(name, 0755);
        }
        QmTest::writeFile(directory.path(PLUGIN), "x");
        QmTest::writeFile(directory.path("elsewhere/target.so"), "x");
        mode(PLUGIN, 0644);
        mode("elsewhere/target.so", 0644);
    }
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "only root can give files to others";
    }

    std::string at(const std::string& name) const { return directory.path(name); }
    void mode(const std::string& name, mode_t mode) const
    {
        ASSERT_EQ(0, ::chmod(at(name).c_str(), mode)) << name;
    }
    void give(const std::string& name, uid_t user) const
    {
        ASSERT_EQ(0, ::lchown(at(name).c_str(), user, user)) << name;
    }
    void link(const std::string& target, const std::string& name) const
    {
        fs::remove(at(name));
        fs::create_symlink(target, at(name));
    }
    /// What is wrong, without the path of the temporary directory; empty if nothing is wrong.
    std::string answer(const tl::expected<void, std::string>& verdict) const
    {
        std::string text = verdict ? "" : verdict.error();
        for (auto i = text.find(at("")); i != std::string::npos; i = text.find(at("")))
            text.erase(i, at("").size());
        return text;
    }
    std::string wrong(const std::string& name = PLUGIN, const std::string& top = "top") const
    {
        return answer(checkNotWritableByOthers(at(name), at(top)));
    }
    std::string wrongSecret() const { return answer(checkSecret(at(PLUGIN), at("top"))); }
    /// The answer for a process of another user.
    std::string wrongAs(uid_t user) const
    {
        EXPECT_EQ(0, ::chmod(at("").c_str(), 0755));
        EXPECT_EQ(0, ::seteuid(user));
        std::string text = wrong();
        EXPECT_EQ(0, ::seteuid(0));
        return text;
    }

    static constexpr const char* PLUGIN = "top/lib/plugins/a.so";
    QmTest::TemporaryDirectory directory;
};

TEST_F(FileTrustTest, RootsFileInRootsDirectoriesIsSafe)
{
    EXPECT_EQ("", wrong());
    for (const mode_t good : {0600, 0755, 0555, 0000, 04755}) {
        mode(PLUGIN, good);
        EXPECT_EQ("", wrong()) << good;
    }
}

TEST_F(FileTrustTest, AFileThatTheGroupOrOthersMayWriteIsNamedWithItsMode)
{
    mode(PLUGIN, 0664);
    EXPECT_EQ("others may write top/lib/plugins/a.so (mode 0664)", wrong());
    mode(PLUGIN, 0602);
    EXPECT_EQ("others may write top/lib/plugins/a.so (mode 0602)", wrong());
}

TEST_F(FileTrustTest, AFileOfSomebodyElseIsNamedWithItsOwner)
{
    give(PLUGIN, SOMEBODY);
    EXPECT_EQ("top/lib/plugins/a.so belongs to user 12345 (mode 0644); root is expected", wrong());
}

TEST_F(FileTrustTest, EachDirectoryFromTheTopDownCounts)
{
    for (const char* name : {"top", "top/lib", "top/lib/plugins"}) {
        for (const mode_t bad : {0775, 0757, 01777}) {
            mode(name, bad);
            EXPECT_TRUE(wrong().starts_with(std::string("others may write ") + name + " (mode "))
                << name << ": " << wrong();
        }
        mode(name, 0755);
        give(name, SOMEBODY);
        EXPECT_EQ(std::string(name) + " belongs to user 12345 (mode 0755); root is expected",
                  wrong());
        give(name, 0);
        EXPECT_EQ("", wrong());
    }
}

TEST_F(FileTrustTest, TheDirectoriesAboveTheTopDoNotCount)
{
    ASSERT_EQ(0, ::chmod(at("").c_str(), 01777)); // like /tmp
    EXPECT_EQ("", wrong());
    mode("top", 0777);
    EXPECT_EQ("", wrong(PLUGIN, "top/lib"));
    EXPECT_EQ("", wrong(PLUGIN, "top/lib/")) << "a slash at the end changes nothing";
    EXPECT_EQ("", wrong(PLUGIN, "top/lib//"));
}

TEST_F(FileTrustTest, OfAFileThatIsNotBelowTheTopItsDirectoryCounts)
{
    EXPECT_EQ("", wrong("elsewhere/target.so"));
    mode("elsewhere", 0777);
    EXPECT_EQ("others may write elsewhere (mode 0777)", wrong("elsewhere/target.so"));
    EXPECT_EQ("others may write top/lib/../../elsewhere (mode 0777)",
              wrong("top/lib/../../elsewhere/target.so"));
    fs::create_directory(at("top2"));
    QmTest::writeFile(at("top2/a"), "");
    mode("top", 0777);
    EXPECT_EQ("", wrong("top2/a")) << "its name only begins like the top's";
}

TEST_F(FileTrustTest, ATopItselfCanBeChecked)
{
    ASSERT_EQ(0, ::chmod(at("").c_str(), 01777));
    EXPECT_EQ("", wrong("top"));
    EXPECT_EQ("", wrong("top/", "top"));
    mode("top", 0777);
    EXPECT_EQ("others may write top (mode 0777)", wrong("top"));
}

TEST_F(FileTrustTest, TheUserOfThisProcessIsTrusted)
{
    give(PLUGIN, DAEMON);
    give("top/lib/plugins", DAEMON);
    EXPECT_EQ("", wrongAs(DAEMON));
    EXPECT_EQ("top/lib/plugins belongs to user 23456 (mode 0755); root or user 12345 is expected",
              wrongAs(SOMEBODY));
    EXPECT_EQ("top/lib/plugins belongs to user 23456 (mode 0755); root is expected", wrong());
}

TEST_F(FileTrustTest, ALinksTargetAndItsDirectoryCount)
{
    link(at("elsewhere/target.so"), PLUGIN);
    EXPECT_EQ("", wrong());
    mode("elsewhere/target.so", 0666);
    EXPECT_EQ("others may write elsewhere/target.so (mode 0666)", wrong());
    mode("elsewhere/target.so", 0644);
    mode("elsewhere", 0777);
    EXPECT_EQ("others may write elsewhere (mode 0777)", wrong());
    mode("elsewhere", 0755);
    give("elsewhere/target.so", SOMEBODY);
    EXPECT_EQ("elsewhere/target.so belongs to user 12345 (mode 0644); root is expected", wrong());
}

TEST_F(FileTrustTest, EachLinkOfAChainCounts)
{
    fs::create_directory(at("middle"));
    link("../elsewhere/target.so", "middle/link");
    link(at("middle/link"), PLUGIN);
    EXPECT_EQ("", wrong());
    mode("middle", 0777);
    EXPECT_EQ("others may write middle (mode 0777)", wrong());
    mode("middle", 0755);
    give("middle/link", SOMEBODY);
    EXPECT_EQ("middle/link belongs to user 12345 (mode 0777); root is expected", wrong());
}

TEST_F(FileTrustTest, ALinkOfSomebodyElseIsRefused)
{
    link(at("elsewhere/target.so"), PLUGIN);
    give(PLUGIN, SOMEBODY);
    EXPECT_EQ("top/lib/plugins/a.so belongs to user 12345 (mode 0777); root is expected", wrong());
}

TEST_F(FileTrustTest, ADirectoryMayBeALink)
{
    fs::remove_all(at("top/lib/plugins"));
    fs::create_directory_symlink(at("elsewhere"), at("top/lib/plugins"));
    EXPECT_EQ("", wrong("top/lib/plugins/target.so"));
    mode("elsewhere", 0777);
    EXPECT_EQ("others may write elsewhere (mode 0777)", wrong("top/lib/plugins/target.so"));
    mode("elsewhere", 0755);
    give("top/lib/plugins", SOMEBODY);
    EXPECT_EQ("top/lib/plugins belongs to user 12345 (mode 0777); root is expected",
              wrong("top/lib/plugins/target.so"));
}

TEST_F(FileTrustTest, WhatCannotBeExaminedIsRefused)
{
    EXPECT_EQ("cannot examine top/lib/plugins/absent: No such file or directory",
              wrong("top/lib/plugins/absent"));
    link("nowhere", PLUGIN);
    EXPECT_EQ("cannot examine top/lib/plugins/nowhere: No such file or directory", wrong());
    link("a.so", PLUGIN);
    EXPECT_EQ("cannot examine top/lib/plugins/a.so: Too many levels of symbolic links", wrong());
    fs::remove_all(at("top/lib"));
    EXPECT_EQ("cannot examine top/lib: No such file or directory", wrong());
    EXPECT_EQ("cannot examine \"\": No such file or directory",
              answer(checkNotWritableByOthers("", "")));
}

TEST_F(FileTrustTest, ASecretIsAlsoUnreadableForOthers)
{
    mode(PLUGIN, 0600);
    EXPECT_EQ("", wrongSecret());
    mode(PLUGIN, 0400);
    EXPECT_EQ("", wrongSecret());
    for (const mode_t bad : {0640, 0604, 0610, 0601}) {
        mode(PLUGIN, bad);
        EXPECT_TRUE(wrongSecret().starts_with("others may use top/lib/plugins/a.so (mode 06"))
            << wrongSecret();
        EXPECT_EQ("", wrong());
    }
    mode(PLUGIN, 0640);
    EXPECT_EQ("others may use top/lib/plugins/a.so (mode 0640); mode 0600 is expected",
              wrongSecret());
    mode(PLUGIN, 0620);
    EXPECT_EQ("others may write top/lib/plugins/a.so (mode 0620)", wrongSecret());
    mode(PLUGIN, 0600);
    mode("top/lib", 0777);
    EXPECT_EQ("others may write top/lib (mode 0777)", wrongSecret());
    mode("top/lib", 0755);
    give(PLUGIN, SOMEBODY);
    EXPECT_EQ("top/lib/plugins/a.so belongs to user 12345 (mode 0600); root is expected",
              wrongSecret());
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
