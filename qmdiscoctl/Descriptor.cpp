#include "Descriptor.h"

#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

/// Whether it is worth another try after errno: at once, or once the descriptor is ready (whoever
/// started us may have made it non-blocking).
bool again(int fd, short event)
{
    if (errno == EINTR)
        return true;
    if (errno != EAGAIN)
        return false;
    pollfd waiting = {fd, event, 0};
    return ::poll(&waiting, 1, -1) >= 0 || errno == EINTR;
}

} // namespace

int writeAll(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = ::write(fd, bytes.data(), bytes.size());
        if (count >= 0)
            bytes.remove_prefix(static_cast<std::size_t>(count));
        else if (!again(fd, POLLOUT))
            return errno;
    }
    return 0;
}

long readFull(int fd, char* buffer, std::size_t size)
{
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::read(fd, buffer + done, size - done);
        if (count == 0)
            break;
        if (count > 0)
            done += static_cast<std::size_t>(count);
        else if (!again(fd, POLLIN))
            return -1;
    }
    return static_cast<long>(done);
}

void ensureStandardDescriptors()
{
    // open takes the lowest free one, so they are filled in order.
    for (int fd = 0; fd <= 2; ++fd)
        if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF)
            ::open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY);
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
