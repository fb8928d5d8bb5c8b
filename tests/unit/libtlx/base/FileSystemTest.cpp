// The seam of the system calls on files.

#include <tlx/FileSystem.h>

#include <array>
#include <cerrno>
#include <set>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include <tlx/FileDescriptor.h>

#include "support/KernelLocks.h"
#include "support/ScriptedFileSystem.h"
#include "support/TemporaryDirectory.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

struct FileSystemTest : testing::Test
{
    std::string path(const char* name) const { return directory.path(name); }

    QmTest::TemporaryDirectory directory;
    FileSystem& system = FileSystem::current();
};

TEST_F(FileSystemTest, EachOperationIsTheSystemCall)
{
    EXPECT_EQ(0, system.mkdir(path("d").c_str(), 0700));
    EXPECT_TRUE(std::filesystem::is_directory(path("d")));

    const std::string file = path("d/file");
    const int descriptor = system.open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(7, system.write(descriptor, "content", 7));
    std::array<char, 4> buffer{};
    EXPECT_EQ(4, system.pread(descriptor, buffer.data(), buffer.size(), 3));
    EXPECT_EQ("tent", std::string(buffer.data(), buffer.size()));
    EXPECT_EQ(0, system.read(descriptor, buffer.data(), buffer.size())) << "pread moves nothing";
    EXPECT_EQ(0, system.fallocate(descriptor, 100000));
    struct stat status = {};
    EXPECT_EQ(0, system.fstat(descriptor, &status));
    EXPECT_EQ(7, status.st_size);
    EXPECT_GE(status.st_blocks * 512, 100000);
    EXPECT_EQ(0, system.ftruncate(descriptor, 3));
    EXPECT_EQ("con", QmTest::contentOf(file));
    EXPECT_EQ(0, system.fsync(descriptor));
    EXPECT_EQ(0, system.fdatasync(descriptor));

    struct flock request = QmTest::lockRequest(F_WRLCK);
    EXPECT_EQ(0, system.lock(descriptor, F_OFD_SETLK, &request));
    const FileDescriptor other(::open(file.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ("Write", QmTest::lockOfOthers(other.get()));

    EXPECT_EQ(0, system.close(descriptor));
    EXPECT_EQ(-1, ::fcntl(descriptor, F_GETFD));
    EXPECT_EQ(0, system.rename(file.c_str(), path("moved").c_str()));
    EXPECT_EQ(0, system.fstatat(AT_FDCWD, path("moved").c_str(), &status));
    EXPECT_EQ(3, status.st_size);

    DIR* const listed = system.opendir(directory.path().c_str());
    ASSERT_TRUE(listed);
    std::set<std::string> names;
    while (const dirent* const entry = system.readdir(listed))
        names.insert(entry->d_name);
    ::closedir(listed);
    EXPECT_EQ((std::set<std::string>{".", "..", "d", "moved"}), names);

    EXPECT_EQ(0, system.unlink(path("moved").c_str()));
    EXPECT_FALSE(std::filesystem::exists(path("moved")));
}

TEST_F(FileSystemTest, AFailureIsInErrno)
{
    const std::string missing = path("missing");
    struct stat status = {};
    struct flock request = QmTest::lockRequest(F_WRLCK);
    char byte = 0;
    const auto error = [](auto answer) { return answer < 0 ? errno : 0; };
    EXPECT_EQ(ENOENT, error(system.open(missing.c_str(), O_RDONLY, 0)));
    EXPECT_EQ(ENOENT, error(system.fstatat(AT_FDCWD, missing.c_str(), &status)));
    EXPECT_EQ(ENOENT, error(system.unlink(missing.c_str())));
    EXPECT_EQ(ENOENT, error(system.rename(missing.c_str(), path("other").c_str())));
    EXPECT_EQ(EEXIST, error(system.mkdir(directory.path().c_str(), 0700)));
    EXPECT_EQ(EBADF, error(system.close(-1)));
    EXPECT_EQ(EBADF, error(system.read(-1, &byte, 1)));
    EXPECT_EQ(EBADF, error(system.pread(-1, &byte, 1, 0)));
    EXPECT_EQ(EBADF, error(system.write(-1, &byte, 1)));
    EXPECT_EQ(EBADF, error(system.fallocate(-1, 1)));
    EXPECT_EQ(EBADF, error(system.ftruncate(-1, 1)));
    EXPECT_EQ(EBADF, error(system.fsync(-1)));
    EXPECT_EQ(EBADF, error(system.fdatasync(-1)));
    EXPECT_EQ(EBADF, error(system.fstat(-1, &status)));
    EXPECT_EQ(EBADF, error(system.lock(-1, F_OFD_SETLK, &request)));
    EXPECT_FALSE(system.opendir(missing.c_str()));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(FileSystemTest, AReplacementIsUsedUntilItEnds)
{
    QmTest::writeFile(path("file"), "x");
    {
        QmTest::ScriptedFileSystem scripted;
        EXPECT_EQ(&scripted, &FileSystem::current());
        scripted.fail("open", EMFILE);
        EXPECT_EQ(-1, FileSystem::current().open(path("file").c_str(), O_RDONLY | O_CLOEXEC, 0));
        EXPECT_EQ(EMFILE, errno);
        FileDescriptor file(
            FileSystem::current().open(path("file").c_str(), O_RDONLY | O_CLOEXEC, 0));
        EXPECT_TRUE(file.isOpen());
        file.reset();
        const std::string open = "open " + path("file");
        EXPECT_EQ((QmTest::Lines{open, open, "close " + path("file")}), scripted.calls());
    }
    EXPECT_EQ(&system, &FileSystem::current());
}

TEST_F(FileSystemTest, AFailedCloseClosesAndIsReportedOnce)
{
    QmTest::writeFile(path("file"), "x");
    QmTest::ScriptedFileSystem scripted;
    FileDescriptor file(scripted.open(path("file").c_str(), O_RDONLY | O_CLOEXEC, 0));
    const int number = file.get();
    scripted.clear();
    scripted.fail("close", EINTR);
    const auto closed = file.close();
    ASSERT_FALSE(closed);
    EXPECT_EQ(EINTR, closed.error().value());
    // A second call could close a descriptor that another thread has opened since.
    EXPECT_EQ(1, scripted.count("close"));
    EXPECT_EQ(-1, ::fcntl(number, F_GETFD));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
