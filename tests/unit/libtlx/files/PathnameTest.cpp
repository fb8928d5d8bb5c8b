#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

#include <tlx/Pathname.h>

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
