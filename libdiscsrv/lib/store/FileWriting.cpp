#include "FileWriting.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

bool writeAll(int fd, const void* bytes, std::size_t length)
{
    const char* next = static_cast<const char*>(bytes);
    while (length > 0) {
        const ssize_t written = ::write(fd, next, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        next += written;
        length -= static_cast<std::size_t>(written);
    }
    return true;
}

bool reserveSpace(int fd, std::size_t length)
{
    if (length == 0)
        return true;
    int result;
    do {
        result = ::fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(length));
    } while (result != 0 && errno == EINTR);
    return result == 0 || errno == EOPNOTSUPP || errno == ENOSYS;
}

bool syncDirectory(const TlxPathname& directory)
{
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd == -1)
        return false;
    const bool synced = ::fsync(fd) == 0;
    const int error = errno;
    ::close(fd);
    errno = error;
    return synced;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
