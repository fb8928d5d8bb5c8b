#include "StartReport.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Veltrane::Quillmark::Qmdisco {

using Tlx::FileDescriptor;

namespace {

tl::unexpected<Failure> cannot(const char* what)
{
    const std::string why = Tlx::systemError(errno).message();
    return tl::unexpected(
        Failure{EC_UNEXPECTED, std::string("unexpected failure: ") + what + ": " + why});
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
    const auto null = Tlx::openFile("/dev/null", O_RDWR);
    for (int target = from; null && target <= to; ++target)
        ::dup2(null->get(), target);
}

} // namespace

Result<StartReport> StartReport::detach()
{
    std::fflush(nullptr); // buffered output would be written by both
    ::close_range(STDERR_FILENO + 1, ~0u, 0);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return cannot("pipe");
    FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    const pid_t child = ::fork();
    if (child < 0)
        return cannot("fork");
    if (child > 0) {
        writing.reset();
        waitForDaemon(reading.get(), child);
    }
    reading.reset();
    if (::setsid() < 0)
        return cannot("setsid");
    // The leader of a session could get a controlling terminal by opening one; its child cannot.
    const pid_t daemon = ::fork();
    if (daemon < 0)
        return cannot("fork");
    if (daemon > 0)
        ::_exit(EC_OK);
    if (::chdir("/") != 0)
        return cannot("chdir");
    toNull(STDIN_FILENO, STDOUT_FILENO);
    return StartReport(std::move(writing));
}

void StartReport::tell(int exitCode)
{
    const FileDescriptor listener = std::move(m_listener);
    if (!listener.isOpen())
        return;
    if (exitCode == EC_OK)
        toNull(STDERR_FILENO, STDERR_FILENO);
    const auto code = static_cast<unsigned char>(exitCode);
    // Fails when the process that started the daemon is gone. Then nobody wants to know.
    [[maybe_unused]] const ssize_t ignored = ::write(listener.get(), &code, 1);
}

} // namespace Veltrane::Quillmark::Qmdisco
