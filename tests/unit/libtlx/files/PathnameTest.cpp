#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

#include <tlx/Pathname.h>

#include "support/ScriptedFileSystem.h"
#include "support/TemporaryDirectory.h"

using namespace Veltrane::Quillmark::Tlx;

namespace {

class PathnameDirectoryTest : public testing::Test
{
  protected:
    std::string at(const std::string& below) const { return m_root + "/" + below; }
    static mode_t permissions(const std::string& path)
    {
        struct stat status = {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
        return status.st_mode & 07777;
    }

    const QmTest::TemporaryDirectory m_directory;
    const std::string m_root = m_directory.path().string();
};

std::string joined(const char* path, const char* name)
{
    return TlxPathname(path).withFileName(name).text();
}

TEST(PathnameTest, OneSlashJoins)
{
    EXPECT_EQ(joined("/a", "b"), "/a/b");
    EXPECT_EQ(joined("/a/", "b"), "/a/b");
    EXPECT_EQ(joined("/a//", "//b"), "/a/b");
    EXPECT_EQ(joined("/", "b"), "/b");
    EXPECT_EQ(joined("a", "b/c"), "a/b/c");
}

TEST(PathnameTest, WhatIsEmptyIsNoComponent)
{
    EXPECT_EQ(joined("", "b"), "b");
    EXPECT_EQ(joined("/a", ""), "/a");
    EXPECT_TRUE(TlxPathname().empty());
    EXPECT_TRUE(TlxPathname(static_cast<const char*>(nullptr)).empty());
}

TEST(PathnameTest, DirectoryAndFileName)
{
    EXPECT_EQ(TlxPathname("/a/b/c").directory(), TlxPathname("/a/b"));
    EXPECT_EQ(TlxPathname("/a/b/c").fileName(), "c");
    EXPECT_EQ(TlxPathname("c").directory(), TlxPathname("."));
    EXPECT_EQ(TlxPathname("c").fileName(), "c");
    EXPECT_EQ(TlxPathname("/c").directory(), TlxPathname("/"));
    EXPECT_EQ(TlxPathname("/c").fileName(), "c");
    EXPECT_EQ(TlxPathname("").directory(), TlxPathname("."));
    EXPECT_EQ(TlxPathname("").fileName(), "");
    EXPECT_EQ(TlxPathname("/").directory(), TlxPathname("/"));
}

TEST(PathnameTest, PrintsItsText)
{
    std::ostringstream out;
    out << TlxPathname("/a/b");
    EXPECT_EQ(out.str(), "/a/b");
    EXPECT_STREQ(TlxPathname("/a/b").c_str(), "/a/b");
}

TEST_F(PathnameDirectoryTest, MakesAllThatIsMissingWithThePermissionsWhateverTheMask)
{
    const mode_t before = ::umask(0077);
    const int result = TlxPathname(at("x/y/z")).createDirectories(0755);
    ::umask(before);
    EXPECT_EQ(result, 0);
    for (const char* made : {"x", "x/y", "x/y/z"})
        EXPECT_EQ(permissions(at(made)), 0755u) << made;
}

TEST_F(PathnameDirectoryTest, EachNewDirectoryIsSyncedIntoItsParent)
{
    ASSERT_EQ(::mkdir(at("x").c_str(), 0700), 0);
    QmTest::ScriptedFileSystem system;
    EXPECT_EQ(TlxPathname(at("x/y/z")).createDirectories(0755), 0);
    QmTest::Lines changes;
    for (const std::string& call : system.calls())
        if (call.starts_with("mkdir " + m_root) || call.starts_with("fsync "))
            changes.push_back(call);
    // It tries the directories above x too, which are there.
    const auto first = std::find(changes.begin(), changes.end(), "mkdir " + at("x"));
    ASSERT_NE(first, changes.end());
    EXPECT_EQ(QmTest::Lines(first, changes.end()),
              (QmTest::Lines{"mkdir " + at("x"), "mkdir " + at("x/y"), "fsync " + at("x"),
                             "mkdir " + at("x/y/z"), "fsync " + at("x/y")}));
    EXPECT_EQ(system.count("fsync"), 2);
    system.clear();
    EXPECT_EQ(TlxPathname(at("x/y/z")).createDirectories(0755), 0);
    EXPECT_EQ(system.count("mkdir"), 0);
    EXPECT_EQ(system.count("fsync"), 0);
}

TEST_F(PathnameDirectoryTest, ADirectoryInTheWorkingDirectoryIsSyncedIntoIt)
{
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(m_root);
    QmTest::ScriptedFileSystem system;
    EXPECT_EQ(TlxPathname("new").createDirectories(0755), 0);
    std::filesystem::current_path(before);
    EXPECT_EQ(system.calls().back(), "close " + m_root);
    EXPECT_EQ(system.count("fsync"), 1);
}

TEST_F(PathnameDirectoryTest, ADirectoryThatCannotBeSyncedIsAnError)
{
    QmTest::ScriptedFileSystem system;
    system.fail("fsync", EIO);
    EXPECT_EQ(TlxPathname(at("x/y")).createDirectories(0755), EIO);
    EXPECT_FALSE(std::filesystem::exists(at("x/y")));
    system.fail("mkdir", ENOSPC, 100);
    EXPECT_EQ(TlxPathname(at("y")).createDirectories(0755), ENOSPC);
    EXPECT_FALSE(std::filesystem::exists(at("y")));
}

TEST_F(PathnameDirectoryTest, WhatWasThereStaysAsItWas)
{
    ASSERT_EQ(::mkdir(at("x").c_str(), 0700), 0);
    EXPECT_EQ(TlxPathname(at("x/y/")).createDirectories(0755), 0);
    EXPECT_EQ(permissions(at("x")), 0700u);
    EXPECT_EQ(TlxPathname(at("x")).createDirectories(0755), 0);
    EXPECT_EQ(permissions(at("x")), 0700u);
}

TEST_F(PathnameDirectoryTest, AFileInTheWayIsAnError)
{
    std::ofstream(at("file")) << "x";
    EXPECT_EQ(TlxPathname(at("file")).createDirectories(0755), ENOTDIR);
    EXPECT_EQ(TlxPathname(at("file/below")).createDirectories(0755), ENOTDIR);
}

TEST_F(PathnameDirectoryTest, AnUnusablePathIsAnError)
{
    EXPECT_EQ(TlxPathname("").createDirectories(0755), ENOENT);
    EXPECT_EQ(TlxPathname(at(std::string("x\0y", 3))).createDirectories(0755), EINVAL);
    EXPECT_FALSE(std::filesystem::exists(at("x")));
    EXPECT_EQ(TlxPathname(at(std::string(300, 'n'))).createDirectories(0755), ENAMETOOLONG);
}

} // namespace
