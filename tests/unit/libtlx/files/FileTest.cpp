// File operations: the bytes that they write and read, and their failures.

#include <tlx/File.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/ScriptedFileSystem.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

namespace fs = std::filesystem;

std::string contentOf(const TlxPathname& path)
{
    std::ifstream file(path.text(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct FileTest : testing::Test
{
    FileTest() : directory(TemporaryDirectory::make("qmtest.").value()) {}
    TlxPathname path(const char* name) const { return directory.path().withFileName(name); }
    TlxPathname written(const char* name, const std::string& text) const
    {
        std::ofstream(path(name).text(), std::ios::binary) << text;
        return path(name);
    }

    TemporaryDirectory directory;
};

TEST_F(FileTest, AnOpenedFileIsNotInherited)
{
    const auto file = openFile(path("new"), O_CREAT | O_EXCL | O_RDWR, 0640);
    ASSERT_TRUE(file);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(file->get(), F_GETFD));
    struct stat status = {};
    ASSERT_EQ(0, ::fstat(file->get(), &status));
    EXPECT_EQ(0640u, status.st_mode & 0777);
}

TEST_F(FileTest, AFailedOpenHasTheSystemsErrorAndText)
{
    const auto missing = openFile(path("none"), O_RDONLY);
    ASSERT_FALSE(missing);
    EXPECT_EQ(ENOENT, missing.error().value());
    EXPECT_EQ(std::errc::no_such_file_or_directory, missing.error());
    EXPECT_EQ("No such file or directory", missing.error().message());
    written("there", "");
    EXPECT_EQ(std::errc::file_exists, openFile(path("there"), O_CREAT | O_EXCL | O_RDWR).error());
}

TEST(WriteAll, GoesOnAfterShortWritesAndWaitsForAFullPipe)
{
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC | O_NONBLOCK));
    FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    std::string much(1 << 20, 'x'); // more than a pipe holds
    for (std::size_t i = 0; i < much.size(); i += 1000)
        much[i] = static_cast<char>('a' + i / 1000 % 26);
    std::thread writer([&] {
        EXPECT_TRUE(writeAll(writing.get(), much));
        writing.reset();
    });
    std::string read(much.size() + 1, '\0');
    const auto count = readFull(reading.get(), read.data(), read.size());
    writer.join();
    ASSERT_TRUE(count);
    EXPECT_EQ(much.size(), *count);
    read.resize(*count);
    EXPECT_EQ(much, read);
}

TEST(WriteAll, WritesNothingToNothing)
{
    EXPECT_TRUE(writeAll(-1, ""));
}

TEST(WriteAll, ReportsWhyItStopped)
{
    EXPECT_EQ(std::errc::bad_file_descriptor, writeAll(-1, "x").error());
    const auto full = openFile("/dev/full", O_WRONLY);
    ASSERT_TRUE(full);
    EXPECT_EQ(std::errc::no_space_on_device, writeAll(full->get(), "x").error());
}

TEST_F(FileTest, AWriteThatFailsHalfWayLeavesItsBeginning)
{
    const auto file = openFile(path("small"), O_CREAT | O_WRONLY, 0600);
    ASSERT_TRUE(file);
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit little{20, RLIM_INFINITY};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &little));
    const auto result = writeAll(file->get(), std::string(21, 'x'));
    const rlimit everything{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &everything));
    ASSERT_FALSE(result);
    EXPECT_EQ(std::errc::file_too_large, result.error());
    EXPECT_EQ(std::string(20, 'x'), contentOf(path("small")));
}

TEST_F(FileTest, ReadFullStopsAtTheBufferOrTheEnd)
{
    const auto file = openFile(written("five", "12345"), O_RDONLY);
    ASSERT_TRUE(file);
    char buffer[3] = {};
    EXPECT_EQ(3u, readFull(file->get(), buffer, sizeof buffer));
    EXPECT_EQ("123", std::string(buffer, 3));
    EXPECT_EQ(2u, readFull(file->get(), buffer, sizeof buffer));
    EXPECT_EQ(0u, readFull(file->get(), buffer, sizeof buffer));
    EXPECT_EQ(std::errc::bad_file_descriptor, readFull(-1, buffer, 1).error());
}

TEST_F(FileTest, AFileIsReadWholeUpToTheBound)
{
    EXPECT_EQ("", readWholeFile(written("empty", ""), 0));
    for (const std::size_t bound : {1u, 16383u, 16384u, 16385u, 100000u}) {
        const std::string most(bound, 'x');
        EXPECT_EQ(most, readWholeFile(written("most", most), bound)) << bound;
        const auto larger = readWholeFile(written("larger", most + "x"), bound);
        ASSERT_FALSE(larger) << bound;
        EXPECT_EQ(std::errc::file_too_large, larger.error()) << bound;
    }
}

TEST_F(FileTest, AFileWithoutASizeIsReadWhole)
{
    const auto status = readWholeFile("/proc/self/stat", 100000);
    ASSERT_TRUE(status);
    EXPECT_EQ(0u, status->find(std::to_string(::getpid()) + " "));
}

TEST_F(FileTest, OnlyRegularFilesAreReadWhole)
{
    EXPECT_EQ(std::errc::invalid_argument, readWholeFile(directory.path(), 10).error());
    EXPECT_EQ(std::errc::invalid_argument, readWholeFile("/dev/zero", 10).error());
    ASSERT_EQ(0, ::mkfifo(path("pipe").c_str(), 0600));
    EXPECT_EQ(std::errc::invalid_argument, readWholeFile(path("pipe"), 10).error());
    EXPECT_EQ(std::errc::no_such_file_or_directory, readWholeFile(path("none"), 10).error());
}

TEST_F(FileTest, ReservingSpaceKeepsSizeAndContent)
{
    const auto file = openFile(written("file", "12345"), O_RDWR);
    ASSERT_TRUE(file);
    EXPECT_TRUE(reserveSpace(file->get(), 0));
    EXPECT_TRUE(reserveSpace(file->get(), 100000));
    EXPECT_EQ("12345", contentOf(path("file")));
    EXPECT_EQ(std::errc::bad_file_descriptor, reserveSpace(-1, 1).error());
}

TEST_F(FileTest, ReadFullAtReadsAtAPositionAndMovesNothing)
{
    const auto file = openFile(written("five", "12345"), O_RDONLY);
    ASSERT_TRUE(file);
    char buffer[3] = {};
    EXPECT_EQ(3u, readFullAt(file->get(), buffer, sizeof buffer, 1));
    EXPECT_EQ("234", std::string(buffer, 3));
    EXPECT_EQ(2u, readFullAt(file->get(), buffer, sizeof buffer, 3));
    EXPECT_EQ("45", std::string(buffer, 2));
    EXPECT_EQ(0u, readFullAt(file->get(), buffer, sizeof buffer, 5));
    EXPECT_EQ(0u, readFullAt(file->get(), buffer, 0, 0));
    EXPECT_EQ(3u, readFull(file->get(), buffer, sizeof buffer));
    EXPECT_EQ("123", std::string(buffer, 3));
    EXPECT_EQ(std::errc::bad_file_descriptor, readFullAt(-1, buffer, 1, 0).error());
}

TEST_F(FileTest, ReadOnceReturnsWhatIsThere)
{
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC));
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    ASSERT_TRUE(writeAll(writing.get(), "123"));
    char buffer[8] = {};
    EXPECT_EQ(3u, readOnce(reading.get(), buffer, sizeof buffer));
    EXPECT_EQ("123", std::string(buffer, 3));
    writing.reset();
    EXPECT_EQ(0u, readOnce(reading.get(), buffer, sizeof buffer));
    EXPECT_EQ(std::errc::bad_file_descriptor, readOnce(-1, buffer, 1).error());
}

TEST_F(FileTest, AStatusIsThatOfTheFile)
{
    const TlxPathname five = written("five", "12345");
    const auto file = openFile(five, O_RDONLY);
    ASSERT_TRUE(file);
    const auto ofFile = statusOf(file->get());
    const auto atPath = statusAt(five);
    ASSERT_TRUE(ofFile);
    ASSERT_TRUE(atPath);
    EXPECT_EQ(5, ofFile->st_size);
    EXPECT_EQ(ofFile->st_ino, atPath->st_ino);
    ASSERT_TRUE(statusAt(directory.path()));
    EXPECT_TRUE(S_ISDIR(statusAt(directory.path())->st_mode));
    const auto opened = openFile(directory.path(), O_RDONLY | O_DIRECTORY);
    ASSERT_TRUE(opened);
    const auto inDirectory = statusIn(opened->get(), "five");
    ASSERT_TRUE(inDirectory);
    EXPECT_EQ(ofFile->st_ino, inDirectory->st_ino);
    EXPECT_EQ(std::errc::no_such_file_or_directory, statusIn(opened->get(), "none").error());
    EXPECT_EQ(std::errc::bad_file_descriptor, statusOf(-1).error());
    EXPECT_EQ(std::errc::no_such_file_or_directory, statusAt(path("none")).error());
}

TEST_F(FileTest, AFileIsCutAndLengthened)
{
    const auto file = openFile(written("five", "12345"), O_RDWR);
    ASSERT_TRUE(file);
    EXPECT_TRUE(truncateFile(file->get(), 2));
    EXPECT_EQ("12", contentOf(path("five")));
    EXPECT_TRUE(truncateFile(file->get(), 4));
    EXPECT_EQ(std::string("12\0\0", 4), contentOf(path("five")));
    EXPECT_EQ(std::errc::bad_file_descriptor, truncateFile(-1, 0).error());
    const auto reading = openFile(path("five"), O_RDONLY);
    ASSERT_TRUE(reading);
    EXPECT_EQ(std::errc::invalid_argument, truncateFile(reading->get(), 0).error());
}

TEST_F(FileTest, AFileIsSynced)
{
    const auto file = openFile(written("file", "x"), O_RDWR);
    ASSERT_TRUE(file);
    EXPECT_TRUE(syncFile(file->get()));
    EXPECT_EQ(std::errc::bad_file_descriptor, syncFile(-1).error());
}

TEST_F(FileTest, ARenameReplacesAndARemovalRemoves)
{
    const TlxPathname from = written("from", "new");
    const TlxPathname to = written("to", "old");
    EXPECT_TRUE(renameFile(from, to));
    EXPECT_EQ("new", contentOf(to));
    EXPECT_FALSE(fs::exists(from.text()));
    EXPECT_EQ(std::errc::no_such_file_or_directory, renameFile(from, to).error());
    EXPECT_TRUE(removeFile(to));
    EXPECT_FALSE(fs::exists(to.text()));
    EXPECT_EQ(std::errc::no_such_file_or_directory, removeFile(to).error());
}

TEST_F(FileTest, InterruptedCallsAreRepeated)
{
    const TlxPathname name = written("file", "12345");
    const auto file = openFile(name, O_RDWR);
    ASSERT_TRUE(file);
    const int descriptor = file->get();
    char buffer[5] = {};
    QmTest::ScriptedFileSystem system;
    const auto repeats = [&](const char* operation, const auto& call) {
        system.fail(operation, EINTR, 3);
        EXPECT_TRUE(call()) << operation;
        EXPECT_EQ(0, system.left(operation)) << operation;
    };
    repeats("open", [&] { return openFile(name, O_RDONLY); });
    repeats("read", [&] { return readFull(descriptor, buffer, sizeof buffer); });
    EXPECT_EQ(0, ::lseek(descriptor, 0, SEEK_SET));
    repeats("read", [&] { return readOnce(descriptor, buffer, sizeof buffer); });
    repeats("pread", [&] { return readFullAt(descriptor, buffer, sizeof buffer, 0); });
    EXPECT_EQ("12345", std::string(buffer, sizeof buffer));
    repeats("fstat", [&] { return statusOf(descriptor); });
    repeats("fstatat", [&] { return statusAt(name); });
    repeats("fstatat", [&] { return statusIn(AT_FDCWD, name.c_str()); });
    repeats("write", [&] { return writeAll(descriptor, "x"); });
    repeats("fallocate", [&] { return reserveSpace(descriptor, 10); });
    repeats("ftruncate", [&] { return truncateFile(descriptor, 6); });
    EXPECT_EQ("12345x", contentOf(name));
    repeats("fdatasync", [&] { return syncFile(descriptor); });
    repeats("fsync", [&] { return syncDirectory(directory.path()); });
    repeats("rename", [&] { return renameFile(name, path("other")); });
    repeats("unlink", [&] { return removeFile(path("other")); });
}

TEST_F(FileTest, AFailureInTheMiddleIsReported)
{
    const TlxPathname name = written("file", "12345");
    const auto file = openFile(name, O_RDWR);
    ASSERT_TRUE(file);
    char buffer[5] = {};
    QmTest::ScriptedFileSystem system;
    system.fail("pread", EIO);
    EXPECT_EQ(std::errc::io_error, readFullAt(file->get(), buffer, sizeof buffer, 0).error());
    system.fail("fdatasync", ENOSPC);
    EXPECT_EQ(std::errc::no_space_on_device, syncFile(file->get()).error());
    system.fail("fsync", EIO);
    EXPECT_EQ(std::errc::io_error, syncDirectory(directory.path()).error());
    system.fail("fstat", EIO);
    EXPECT_EQ(std::errc::io_error, readWholeFile(name, 10).error());
    // No failure left a descriptor open.
    EXPECT_EQ(system.count("open"), system.count("close"));
}

TEST_F(FileTest, OnlyADirectoryIsSynced)
{
    EXPECT_TRUE(syncDirectory(directory.path()));
    EXPECT_EQ(std::errc::no_such_file_or_directory, syncDirectory(path("none")).error());
    EXPECT_EQ(std::errc::not_a_directory, syncDirectory(written("file", "")).error());
}

TEST_F(FileTest, ATemporaryFileIsNewAndItsOwnersAlone)
{
    const auto first = makeTemporaryFile(path("begin-"));
    const auto second = makeTemporaryFile(path("begin-"));
    ASSERT_TRUE(first);
    ASSERT_TRUE(second);
    EXPECT_NE(first->path, second->path);
    EXPECT_EQ(path("begin-").text(), first->path.text().substr(0, path("begin-").text().size()));
    EXPECT_EQ(path("begin-XXXXXX").text().size(), first->path.text().size());
    EXPECT_TRUE(writeAll(first->descriptor.get(), "text"));
    EXPECT_EQ("text", contentOf(first->path));
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(first->descriptor.get(), F_GETFD));
    struct stat status = {};
    ASSERT_EQ(0, ::stat(first->path.c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 0777);
    EXPECT_EQ(std::errc::no_such_file_or_directory, makeTemporaryFile(path("none/x")).error());
}

TEST(TemporaryDirectory, IsRemovedWithAllThatIsInIt)
{
    TlxPathname path;
    {
        auto made = TemporaryDirectory::make("qmtest.");
        ASSERT_TRUE(made);
        const TemporaryDirectory moved = std::move(*made);
        path = moved.path();
        EXPECT_EQ(0u, path.fileName().find("qmtest."));
        EXPECT_EQ(fs::perms::owner_all, fs::status(path.text()).permissions());
        fs::create_directories(path.withFileName("a/b").text());
        std::ofstream(path.withFileName("a/b/c").text()) << "x";
        made = tl::unexpected(systemError(EINVAL)); // the moved-from object removes nothing
        EXPECT_TRUE(fs::exists(path.withFileName("a/b/c").text()));
    }
    EXPECT_FALSE(fs::exists(path.text()));
}

TEST(TemporaryDirectory, ThatCannotBeMadeHasTheReason)
{
    EXPECT_EQ(std::errc::no_such_file_or_directory,
              TemporaryDirectory::make("none/there.").error());
}

/// Runs a check in a child process that started without the three standard descriptors. Returns its
/// result after they were filled.
bool childFinds(MissingStream behaviour, bool (*asExpected)())
{
    QmTest::ChildProcess child([&] {
        ::close(STDIN_FILENO);
        ::close(STDOUT_FILENO);
        ::close(STDERR_FILENO);
        fillStandardDescriptors(behaviour);
        const FileDescriptor next(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        return next.get() > STDERR_FILENO && asExpected() ? 0 : 1;
    });
    return child.exitCode() == 0;
}

TEST(StandardDescriptors, AMissingOneFails)
{
    EXPECT_TRUE(childFinds(MissingStream::FAILS, [] {
        char byte = 0;
        return !readFull(STDIN_FILENO, &byte, 1) && !writeAll(STDOUT_FILENO, "x") &&
               !writeAll(STDERR_FILENO, "x");
    }));
}

TEST(StandardDescriptors, AMissingOneDiscards)
{
    EXPECT_TRUE(childFinds(MissingStream::DISCARDS, [] {
        char byte = 0;
        return readFull(STDIN_FILENO, &byte, 1) == 0u && writeAll(STDOUT_FILENO, "x") &&
               writeAll(STDERR_FILENO, "x");
    }));
}

TEST(StandardDescriptors, OneThatIsThereStays)
{
    QmTest::ChildProcess child([] {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0 || ::dup2(ends[1], STDOUT_FILENO) < 0)
            return 1;
        fillStandardDescriptors(MissingStream::FAILS);
        char byte = 0;
        const bool same = writeAll(STDOUT_FILENO, "x") && readFull(ends[0], &byte, 1) == 1u;
        return same && byte == 'x' ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode(), 0);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
