#include <tlx/File.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include <poll.h>
#include <unistd.h>

#include <tlx/FileSystem.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

tl::unexpected<std::error_code> lastError()
{
    return tl::unexpected(systemError(errno));
}

/// Repeats a system call that a signal interrupted.
template <class Call>
auto uninterrupted(Call call)
{
    auto answer = call();
    while (answer < 0 && errno == EINTR)
        answer = call();
    return answer;
}

/// The result of a call that returns 0 on success. Repeats an interrupted one.
template <class Call>
FileResult<> resultOf(Call call)
{
    if (uninterrupted(call) != 0)
        return lastError();
    return {};
}

/// Whether to repeat a read or write after the error in errno. If the descriptor is non-blocking,
/// it waits until the descriptor is ready.
bool mayTryAgain(int descriptor, short event)
{
    if (errno == EINTR)
        return true;
    if (errno != EAGAIN)
        return false;
    pollfd waiting = {descriptor, event, 0};
    return ::poll(&waiting, 1, -1) >= 0 || errno == EINTR;
}

} // namespace

FileResult<FileDescriptor> openFile(const TlxPathname& path, int flags, mode_t mode)
{
    FileDescriptor file(uninterrupted(
        [&] { return FileSystem::current().open(path.c_str(), flags | O_CLOEXEC, mode); }));
    if (!file.isOpen())
        return lastError();
    return file;
}

FileResult<> writeAll(int descriptor, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = FileSystem::current().write(descriptor, bytes.data(), bytes.size());
        if (count == 0)
            return tl::unexpected(systemError(EIO)); // otherwise the loop would never end
        if (count > 0)
            bytes.remove_prefix(static_cast<std::size_t>(count));
        else if (!mayTryAgain(descriptor, POLLOUT))
            return lastError();
    }
    return {};
}

FileResult<std::size_t> readFull(int descriptor, char* buffer, std::size_t size)
{
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = FileSystem::current().read(descriptor, buffer + done, size - done);
        if (count == 0)
            break;
        if (count > 0)
            done += static_cast<std::size_t>(count);
        else if (!mayTryAgain(descriptor, POLLIN))
            return lastError();
    }
    return done;
}

FileResult<std::size_t> readOnce(int descriptor, char* buffer, std::size_t size)
{
    const ssize_t count =
        uninterrupted([&] { return FileSystem::current().read(descriptor, buffer, size); });
    if (count < 0)
        return lastError();
    return static_cast<std::size_t>(count);
}

FileResult<std::size_t> readFullAt(int descriptor, char* buffer, std::size_t size, off_t position)
{
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = uninterrupted([&] {
            return FileSystem::current().pread(descriptor, buffer + done, size - done,
                                               position + static_cast<off_t>(done));
        });
        if (count < 0)
            return lastError();
        if (count == 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

FileResult<struct stat> statusOf(int descriptor)
{
    struct stat status = {};
    if (uninterrupted([&] { return FileSystem::current().fstat(descriptor, &status); }) != 0)
        return lastError();
    return status;
}

FileResult<struct stat> statusAt(const TlxPathname& path)
{
    return statusIn(AT_FDCWD, path.c_str());
}

FileResult<struct stat> statusIn(int directory, const char* name)
{
    struct stat status = {};
    if (uninterrupted([&] { return FileSystem::current().fstatat(directory, name, &status); }) != 0)
        return lastError();
    return status;
}

FileResult<> truncateFile(int descriptor, std::size_t size)
{
    return resultOf(
        [&] { return FileSystem::current().ftruncate(descriptor, static_cast<off_t>(size)); });
}

FileResult<> syncFile(int descriptor)
{
    return resultOf([&] { return FileSystem::current().fdatasync(descriptor); });
}

void startWriteback(int descriptor, std::size_t offset, std::size_t bytes)
{
    (void)FileSystem::current().startWriteback(descriptor, static_cast<off_t>(offset),
                                               static_cast<off_t>(bytes));
}

FileResult<> renameFile(const TlxPathname& from, const TlxPathname& to)
{
    return resultOf([&] { return FileSystem::current().rename(from.c_str(), to.c_str()); });
}

FileResult<> removeFile(const TlxPathname& path)
{
    return resultOf([&] { return FileSystem::current().unlink(path.c_str()); });
}

FileResult<std::string> readWholeFile(const TlxPathname& path, std::size_t mostBytes)
{
    const auto file = openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (!file)
        return tl::unexpected(file.error());
    const auto status = statusOf(file->get());
    if (!status)
        return tl::unexpected(status.error());
    if (!S_ISREG(status->st_mode))
        return tl::unexpected(systemError(EINVAL));
    // Do not ask for the size. The kernel makes the files in /proc during the read, and their size
    // is 0.
    std::string content;
    std::array<char, 16384> buffer{};
    while (content.size() <= mostBytes) {
        const auto count = readFull(file->get(), buffer.data(), buffer.size());
        if (!count)
            return tl::unexpected(count.error());
        content.append(buffer.data(), *count);
        if (*count < buffer.size())
            break;
    }
    if (content.size() > mostBytes)
        return tl::unexpected(systemError(EFBIG));
    return content;
}

FileResult<> reserveSpace(int descriptor, std::size_t bytes)
{
    if (bytes == 0)
        return {};
    const int answer = uninterrupted(
        [&] { return FileSystem::current().fallocate(descriptor, static_cast<off_t>(bytes)); });
    if (answer != 0 && errno != EOPNOTSUPP && errno != ENOSYS)
        return lastError();
    return {};
}

FileResult<> syncDirectory(const TlxPathname& directory)
{
    const auto file = openFile(directory, O_RDONLY | O_DIRECTORY);
    if (!file)
        return tl::unexpected(file.error());
    return resultOf([&] { return FileSystem::current().fsync(file->get()); });
}

FileResult<TemporaryFile> makeTemporaryFile(const TlxPathname& beginning)
{
    std::string path = beginning.text() + "XXXXXX";
    FileDescriptor file(::mkostemp(path.data(), O_CLOEXEC));
    if (!file.isOpen())
        return lastError();
    return TemporaryFile{path, std::move(file)};
}

FileResult<TemporaryDirectory> TemporaryDirectory::make(const std::string& beginning)
{
    std::error_code error;
    const std::filesystem::path base = std::filesystem::temp_directory_path(error);
    if (error)
        return tl::unexpected(error);
    std::string path = (base / (beginning + "XXXXXX")).string();
    if (!::mkdtemp(path.data()))
        return lastError();
    return TemporaryDirectory(path);
}

TemporaryDirectory::TemporaryDirectory(TemporaryDirectory&& other) noexcept
    : m_path(std::exchange(other.m_path, {}))
{
}

TemporaryDirectory::~TemporaryDirectory()
{
    if (m_path.empty())
        return;
    std::error_code ignored;
    std::filesystem::remove_all(m_path.text(), ignored);
}

void fillStandardDescriptors(MissingStream behaviour)
{
    // open takes the lowest free descriptor, so they are filled in order. They have no O_CLOEXEC:
    // like all standard descriptors, they pass to the programs that this process starts.
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) >= 0 || errno != EBADF)
            continue;
        const int wrongWay = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        (void)::open("/dev/null", behaviour == MissingStream::FAILS ? wrongWay : O_RDWR);
    }
}

} // namespace Veltrane::Quillmark::Tlx
