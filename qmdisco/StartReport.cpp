#include "StartReport.h"

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

namespace {

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

/// The part of the process that was started: never returns.
[[noreturn]] void waitForDaemon(int fd, pid_t child)
{
    unsigned char code = EC_UNEXPECTED;
    ssize_t n = 0;
    while ((n = ::read(fd, &code, 1)) < 0 && errno == EINTR) {
    }
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    if (n != 1) {
        code = EC_UNEXPECTED;
        std::fputs("qmdisco: the daemon ended during its start\n", stderr);
    }
    ::_exit(code);
}

void toNull(int from, int to)
{
    const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return;
    for (int target = from; target <= to; ++target)
        ::dup2(fd, target);
    ::close(fd);
}

} // namespace

void ensureStandardDescriptors()
{
    int fd = 0;
    while ((fd = ::open("/dev/null", O_RDWR)) >= 0 && fd <= STDERR_FILENO) {
    }
    if (fd >= 0)
        ::close(fd);
}

StartReport StartReport::detach()
{
    std::fflush(nullptr); // buffered output would be written by both
    ::close_range(STDERR_FILENO + 1, ~0u, 0);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        fail("pipe");
    const pid_t child = ::fork();
    if (child < 0)
        fail("fork");
    if (child > 0) {
        ::close(ends[1]);
        waitForDaemon(ends[0], child);
    }
    ::close(ends[0]);
    if (::setsid() < 0)
        fail("setsid");
    // The leader of a session could get a controlling terminal by opening one; its child cannot.
    const pid_t daemon = ::fork();
    if (daemon < 0)
        fail("fork");
    if (daemon > 0)
        ::_exit(EC_OK);
    if (::chdir("/") != 0)
        fail("chdir");
    toNull(STDIN_FILENO, STDOUT_FILENO);
    return StartReport(ends[1]);
}

StartReport::StartReport(StartReport&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

StartReport& StartReport::operator=(StartReport&& other) noexcept
{
    std::swap(m_fd, other.m_fd);
    return *this;
}

StartReport::~StartReport()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

void StartReport::tell(int exitCode)
{
    const int fd = std::exchange(m_fd, -1);
    if (fd < 0)
        return;
    if (exitCode == EC_OK)
        toNull(STDERR_FILENO, STDERR_FILENO);
    const auto code = static_cast<unsigned char>(exitCode);
    // Fails when whoever started the daemon is gone; then nobody wants to know.
    [[maybe_unused]] const ssize_t ignored = ::write(fd, &code, 1);
    ::close(fd);
}

} // namespace Veltrane::Quillmark::Qmdisco
