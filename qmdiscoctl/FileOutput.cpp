#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tlx/Pathname.h>

#include "Descriptor.h"
#include "Output.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

Failure cannot(const char* what, const std::string& path, int error)
{
    return {EC_FAILURE,
            std::string("cannot ") + what + " " + escaped(path) + ": " + std::strerror(error)};
}

/// Removes the temporary file when a signal ends the program. There is one file at a time; a
/// handler may do no more than look at plain memory and call unlink.
class SignalCleanup
{
  public:
    explicit SignalCleanup(const std::string& path)
    {
        if (path.size() >= sizeof s_path)
            return;
        std::memcpy(s_path, path.c_str(), path.size() + 1);
        for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
            struct sigaction action = {};
            action.sa_handler = &removeAndEnd;
            sigemptyset(&action.sa_mask);
            ::sigaction(SIGNALS[i], nullptr, &m_before[i]);
            // Who told us to ignore a signal (nohup) means it.
            if (m_before[i].sa_handler != SIG_IGN)
                ::sigaction(SIGNALS[i], &action, nullptr);
        }
        m_installed = true;
    }
    ~SignalCleanup()
    {
        for (std::size_t i = 0; m_installed && i < SIGNALS.size(); ++i)
            ::sigaction(SIGNALS[i], &m_before[i], nullptr);
    }
    SignalCleanup(const SignalCleanup&) = delete;
    SignalCleanup& operator=(const SignalCleanup&) = delete;

  private:
    static constexpr std::array<int, 3> SIGNALS{SIGINT, SIGTERM, SIGHUP};

    static void removeAndEnd(int number)
    {
        ::unlink(s_path);
        ::signal(number, SIG_DFL);
        ::raise(number);
    }

    static char s_path[PATH_MAX];
    std::array<struct sigaction, 3> m_before{};
    bool m_installed = false;
};

char SignalCleanup::s_path[PATH_MAX];

/// A device or pipe.
class DirectOutput : public Output
{
  public:
    DirectOutput(std::string path, int fd) : m_path(std::move(path)), m_fd(fd) {}
    ~DirectOutput() override
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Outcome write(std::string_view bytes) override
    {
        if (const int error = writeAll(m_fd, bytes))
            return cannot("write", m_path, error);
        return {};
    }
    Outcome finish() override
    {
        const int fd = m_fd;
        m_fd = -1;
        if (::close(fd) != 0)
            return cannot("close", m_path, errno);
        return {};
    }

  private:
    const std::string m_path;
    int m_fd;
};

class FileOutput : public Output
{
  public:
    FileOutput(std::string path, std::string temporary, int fd)
        : m_path(std::move(path)), m_temporary(std::move(temporary)), m_cleanup(m_temporary),
          m_fd(fd)
    {
    }
    ~FileOutput() override
    {
        if (m_fd >= 0)
            ::close(m_fd);
        if (!m_finished)
            ::unlink(m_temporary.c_str());
    }
    Outcome write(std::string_view bytes) override
    {
        if (const int error = writeAll(m_fd, bytes))
            return cannot("write", m_path, error);
        return {};
    }
    Outcome finish() override
    {
        if (::fsync(m_fd) != 0)
            return cannot("write", m_path, errno);
        const int fd = m_fd;
        m_fd = -1;
        if (::close(fd) != 0)
            return cannot("write", m_path, errno);
        if (::rename(m_temporary.c_str(), m_path.c_str()) != 0)
            return cannot("replace", m_path, errno);
        m_finished = true;
        return syncDirectory();
    }

  private:
    /// The new name is in the directory, which has a sync of its own.
    Outcome syncDirectory() const
    {
        const std::string directory = Tlx::TlxPathname(m_path).directory().text();
        const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0)
            return errno == EACCES ? Outcome() : cannot("open", directory, errno);
        const int error = ::fsync(fd) == 0 ? 0 : errno;
        ::close(fd);
        if (error != 0 && error != EINVAL) // some file systems know no sync of a directory
            return cannot("sync", directory, error);
        return {};
    }

    const std::string m_path;
    const std::string m_temporary;
    const SignalCleanup m_cleanup;
    int m_fd;
    bool m_finished = false;
};

/// The permissions of a file that does not exist yet.
mode_t usualMode()
{
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

} // namespace

std::unique_ptr<Output> makeFileOutput(const std::string& name, Failure& failure)
{
    struct stat about = {};
    const bool exists = ::stat(name.c_str(), &about) == 0;
    if (exists && S_ISDIR(about.st_mode)) {
        failure = cannot("write", name, EISDIR);
        return nullptr;
    }
    if (exists && !S_ISREG(about.st_mode)) {
        const int fd = ::open(name.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
        if (fd < 0) {
            failure = cannot("open", name, errno);
            return nullptr;
        }
        return std::make_unique<DirectOutput>(name, fd);
    }
    std::string path = name;
    if (exists) {
        const std::unique_ptr<char, decltype(&std::free)> real(::realpath(name.c_str(), nullptr),
                                                               &std::free);
        if (real)
            path = real.get();
    }
    std::string temporary =
        Tlx::TlxPathname(path).directory().withFileName(".qmdiscoctl-XXXXXX").text();
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        failure = cannot("write", name, errno);
        return nullptr;
    }
    auto output = std::make_unique<FileOutput>(path, temporary, fd);
    if (::fchmod(fd, exists ? about.st_mode & 07777 : usualMode()) != 0) {
        failure = cannot("set the permissions of", name, errno);
        return nullptr;
    }
    return output;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
