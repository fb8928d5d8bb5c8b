// Descriptors: their owners and their end.

#include <tlx/FileDescriptor.h>

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

bool isOpenDescriptor(int descriptor)
{
    return ::fcntl(descriptor, F_GETFD) >= 0;
}

int openNull()
{
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

TEST(FileDescriptor, ClosesWhatItOwnsOnce)
{
    const int number = openNull();
    {
        const FileDescriptor file(number);
        EXPECT_TRUE(file.isOpen());
        EXPECT_EQ(number, file.get());
        EXPECT_TRUE(isOpenDescriptor(number));
    }
    EXPECT_FALSE(isOpenDescriptor(number));
}

TEST(FileDescriptor, WithoutADescriptorClosesNothing)
{
    FileDescriptor none;
    EXPECT_FALSE(none.isOpen());
    EXPECT_EQ(-1, none.get());
    EXPECT_TRUE(none.close());
    EXPECT_FALSE(FileDescriptor(-1).isOpen());
}

TEST(FileDescriptor, MovingHandsItOn)
{
    const int first = openNull();
    const int second = openNull();
    FileDescriptor from(first);
    FileDescriptor to(second);
    to = std::move(from);
    EXPECT_EQ(first, to.get());
    EXPECT_FALSE(isOpenDescriptor(second)) << "the one that it had is closed";
    const FileDescriptor last(std::move(to));
    EXPECT_EQ(first, last.get());
    EXPECT_FALSE(to.isOpen());
    EXPECT_TRUE(isOpenDescriptor(first));
}

TEST(FileDescriptor, AssignedToItselfStaysOpen)
{
    FileDescriptor file(openNull());
    FileDescriptor& same = file;
    file = std::move(same);
    ASSERT_TRUE(file.isOpen());
    EXPECT_TRUE(isOpenDescriptor(file.get()));
}

TEST(FileDescriptor, ReleasedBelongsToTheCaller)
{
    FileDescriptor file(openNull());
    const int number = file.release();
    file.reset();
    EXPECT_TRUE(isOpenDescriptor(number));
    ::close(number);
}

TEST(FileDescriptor, CloseReportsAFailureAndOwnsNothingAfterIt)
{
    FileDescriptor file(openNull());
    ::close(file.get());
    const auto closed = file.close();
    ASSERT_FALSE(closed);
    EXPECT_EQ(EBADF, closed.error().value());
    EXPECT_FALSE(file.isOpen());
}

TEST(FileDescriptor, ResetLeavesErrnoAlone)
{
    FileDescriptor file(openNull());
    ::close(file.get());
    errno = ENOSPC;
    file.reset();
    EXPECT_EQ(ENOSPC, errno);
}

TEST(DescribeError, HasTheNameAndTheText)
{
    EXPECT_EQ("ENOSPC, No space left on device", describeError(systemError(ENOSPC)));
    EXPECT_EQ("EMFILE, Too many open files", describeError(systemError(EMFILE)));
}

TEST(DescribeError, WithoutANameHasTheText)
{
    EXPECT_EQ("Unknown error 99999", describeError(systemError(99999)));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
