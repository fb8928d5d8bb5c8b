// The input of a put and the output of a get.

#include "Input.h"
#include "Output.h"

#include <csignal>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "qmdiscoctl/FailureOf.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace Veltrane::Quillmark::Qmdiscoctl {
namespace {

namespace fs = std::filesystem;
using QmTest::ChildProcess;
using QmTest::contentOf;
using QmTest::writeFile;

struct CtlFilesTest : testing::Test
{
    std::string path(const char* name) const { return temporary.path(name); }
    std::size_t fileCount() const
    {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(directory), fs::directory_iterator()));
    }
    /// The whole input, read in small pieces.
    static std::string allOf(Input& input)
    {
        std::string text;
        std::vector<unsigned char> buffer(3);
        for (;;) {
            const auto count = input.read(buffer);
            if (!count || *count == 0)
                return text;
            text.append(reinterpret_cast<const char*>(buffer.data()), *count);
        }
    }

    const QmTest::TemporaryDirectory temporary;
    const fs::path& directory = temporary.path();
};

TEST_F(CtlFilesTest, AnInputKnowsTheSizeOfAFile)
{
    writeFile(path("in"), "1234567");
    Input input;
    EXPECT_EQ(failureOf(input.open(path("in"))), NO_FAILURE);
    EXPECT_EQ(input.size(), 7u);
    EXPECT_EQ(allOf(input), "1234567");
}

TEST_F(CtlFilesTest, AnInputReadsAPipeToItsEnd)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    std::thread writer([&] {
        EXPECT_EQ(::write(ends[1], "ab", 2), 2);
        EXPECT_EQ(::write(ends[1], "cde", 3), 3);
        ::close(ends[1]);
    });
    Input input;
    EXPECT_EQ(failureOf(input.open("/proc/self/fd/" + std::to_string(ends[0]))), NO_FAILURE);
    EXPECT_FALSE(input.size());
    EXPECT_EQ(allOf(input), "abcde");
    writer.join();
    ::close(ends[0]);
}

TEST_F(CtlFilesTest, ADirectoryAndAMissingFileAreNoInput)
{
    Input input;
    EXPECT_EQ(failureOf(input.open(directory.string())),
              (Failure{EC_FAILURE, "cannot read " + directory.string() + ": Is a directory"}));
    Input missing;
    EXPECT_EQ(failureOf(missing.open(path("none"))),
              (Failure{EC_FAILURE, "cannot open " + path("none") + ": No such file or directory"}));
}

TEST_F(CtlFilesTest, AFullDeviceFailsAWrite)
{
    const auto output = makeFileOutput("/dev/full");
    ASSERT_TRUE(output) << output.error().text;
    EXPECT_EQ(failureOf((*output)->write("x")),
              (Failure{EC_FAILURE, "cannot write /dev/full: No space left on device"}));
}

TEST_F(CtlFilesTest, AFileAppearsWhenItIsFinished)
{
    auto made = makeFileOutput(path("out"));
    ASSERT_TRUE(made) << made.error().text;
    std::unique_ptr<Output> output = std::move(*made);
    EXPECT_EQ(failureOf(output->write("one ")), NO_FAILURE);
    EXPECT_EQ(failureOf(output->write("two")), NO_FAILURE);
    EXPECT_FALSE(fs::exists(path("out")));
    EXPECT_EQ(failureOf(output->finish()), NO_FAILURE);
    EXPECT_EQ(contentOf(path("out")), "one two");
    output.reset();
    EXPECT_EQ(fileCount(), 1u);
}

TEST_F(CtlFilesTest, AFileGivenUpLeavesWhatWasThere)
{
    writeFile(path("out"), "old");
    auto made = makeFileOutput(path("out"));
    ASSERT_TRUE(made) << made.error().text;
    std::unique_ptr<Output> output = std::move(*made);
    EXPECT_EQ(failureOf(output->write("new")), NO_FAILURE);
    output.reset();
    EXPECT_EQ(contentOf(path("out")), "old");
    EXPECT_EQ(fileCount(), 1u);
}

TEST_F(CtlFilesTest, AReplacedFileKeepsPermissionsAndLinks)
{
    writeFile(path("out"), "old");
    ASSERT_EQ(::chmod(path("out").c_str(), 0640), 0);
    fs::create_symlink("out", path("link"));
    auto made = makeFileOutput(path("link"));
    ASSERT_TRUE(made) << made.error().text;
    std::unique_ptr<Output> output = std::move(*made);
    EXPECT_EQ(failureOf(output->write("new")), NO_FAILURE);
    EXPECT_EQ(failureOf(output->finish()), NO_FAILURE);
    EXPECT_TRUE(fs::is_symlink(path("link")));
    EXPECT_EQ(contentOf(path("out")), "new");
    struct stat about = {};
    ASSERT_EQ(::stat(path("out").c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 07777, 0640u);
}

TEST_F(CtlFilesTest, WhatCannotBeWrittenIsSaidAtOnce)
{
    const auto onDirectory = makeFileOutput(directory.string());
    ASSERT_FALSE(onDirectory);
    EXPECT_EQ(onDirectory.error(),
              (Failure{EC_FAILURE, "cannot write " + directory.string() + ": Is a directory"}));
    const auto nowhere = makeFileOutput(path("none/out"));
    ASSERT_FALSE(nowhere);
    EXPECT_EQ(nowhere.error(), (Failure{EC_FAILURE, "cannot write " + path("none/out") +
                                                        ": No such file or directory"}));
}

TEST_F(CtlFilesTest, ASignalLeavesNoTemporaryFile)
{
    ChildProcess child([this] {
        const auto output = makeFileOutput(path("out"));
        if (!output || !(*output)->write("half"))
            return 1;
        ::raise(SIGTERM);
        return 2;
    });
    EXPECT_EQ(child.exitCode(), -SIGTERM);
    EXPECT_EQ(fileCount(), 0u);
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
