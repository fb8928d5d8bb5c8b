#include <tlx/FileDescriptor.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include <tlx/FileSystem.h>

namespace Veltrane::Quillmark::Tlx {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept
{
    if (this != &other) {
        reset();
        m_descriptor = other.release();
    }
    return *this;
}

FileResult<> FileDescriptor::close()
{
    if (!isOpen())
        return {};
    // Do not repeat it after EINTR. The kernel has closed the descriptor, and its number may be in
    // use again.
    if (FileSystem::current().close(release()) != 0)
        return tl::unexpected(systemError(errno));
    return {};
}

void FileDescriptor::reset() noexcept
{
    if (!isOpen())
        return;
    const int error = errno;
    (void)FileSystem::current().close(release());
    errno = error;
}

std::string describeError(const std::error_code& error)
{
    const char* const name = ::strerrorname_np(error.value());
    return (name ? std::string(name) + ", " : std::string()) + error.message();
}

int FileDescriptor::release() noexcept
{
    return std::exchange(m_descriptor, -1);
}

} // namespace Veltrane::Quillmark::Tlx
