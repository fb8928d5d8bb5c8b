#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tlx/File.h>
#include <tlx/Pathname.h>

#include "Output.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

using Tlx::FileDescriptor;
using Tlx::systemError;

Failure cannot(const char* what, const std::string& path, const std::error_code& error)
{
    return {EC_FAILURE,
            std::string("cannot ") + what + " " + escaped(path) + ": " + error.message()};
}

/// Removes the temporary file when a signal ends the program. There is at most one such file. A
/// signal handler may only read plain memory and call unlink.
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
            // If the caller ignores a signal (nohup), keep ignoring it.
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
    DirectOutput(std::string path, FileDescriptor file)
        : m_path(std::move(path)), m_file(std::move(file))
    {
    }
    Result<> write(std::string_view bytes) override
    {
        if (const auto written = Tlx::writeAll(m_file.get(), bytes); !written)
            return tl::unexpected(cannot("write", m_path, written.error()));
        return {};
    }
    Result<> finish() override
    {
        if (const auto closed = m_file.close(); !closed)
            return tl::unexpected(cannot("close", m_path, closed.error()));
        return {};
    }

  private:
    const std::string m_path;
    FileDescriptor m_file;
};

class FileOutput : public Output
{
  public:
    FileOutput(std::string path, Tlx::TemporaryFile temporary)
        : m_path(std::move(path)), m_temporary(std::move(temporary)),
          m_cleanup(m_temporary.path.text())
    {
    }
    ~FileOutput() override
    {
        m_temporary.descriptor.reset();
        if (!m_finished)
            ::unlink(m_temporary.path.c_str());
    }
    /// Returns false and sets errno on failure.
    bool setMode(mode_t mode) { return ::fchmod(m_temporary.descriptor.get(), mode) == 0; }

    Result<> write(std::string_view bytes) override
    {
        if (const auto written = Tlx::writeAll(m_temporary.descriptor.get(), bytes); !written)
            return tl::unexpected(cannot("write", m_path, written.error()));
        return {};
    }
    Result<> finish() override
    {
        if (::fsync(m_temporary.descriptor.get()) != 0)
            return tl::unexpected(cannot("write", m_path, systemError(errno)));
        if (const auto closed = m_temporary.descriptor.close(); !closed)
            return tl::unexpected(cannot("write", m_path, closed.error()));
        if (::rename(m_temporary.path.c_str(), m_path.c_str()) != 0)
            return tl::unexpected(cannot("replace", m_path, systemError(errno)));
        m_finished = true;
        return syncDirectory();
    }

  private:
    Result<> syncDirectory() const
    {
        const Tlx::TlxPathname directory = Tlx::TlxPathname(m_path).directory();
        const auto synced = Tlx::syncDirectory(directory);
        // A directory may be writable and not readable; some file systems sync no directory.
        if (synced || synced.error() == std::errc::permission_denied ||
            synced.error() == std::errc::invalid_argument)
            return {};
        return tl::unexpected(cannot("sync", directory.text(), synced.error()));
    }

    const std::string m_path;
    Tlx::TemporaryFile m_temporary;
    const SignalCleanup m_cleanup;
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

Result<std::unique_ptr<Output>> makeFileOutput(const std::string& name)
{
    const auto refuse = [&name](const char* what, const std::error_code& error) {
        return tl::unexpected(cannot(what, name, error));
    };
    struct stat about = {};
    const bool exists = ::stat(name.c_str(), &about) == 0;
    if (exists && S_ISDIR(about.st_mode))
        return refuse("write", systemError(EISDIR));
    if (exists && !S_ISREG(about.st_mode)) {
        auto file = Tlx::openFile(name, O_WRONLY | O_NOCTTY);
        if (!file)
            return refuse("open", file.error());
        return std::make_unique<DirectOutput>(name, std::move(*file));
    }
    std::string path = name;
    if (exists) {
        const std::unique_ptr<char, decltype(&std::free)> real(::realpath(name.c_str(), nullptr),
                                                               &std::free);
        if (real)
            path = real.get();
    }
    auto temporary =
        Tlx::makeTemporaryFile(Tlx::TlxPathname(path).directory().withFileName(".qmdiscoctl-"));
    if (!temporary)
        return refuse("write", temporary.error());
    auto output = std::make_unique<FileOutput>(path, std::move(*temporary));
    if (!output->setMode(exists ? about.st_mode & 07777 : usualMode()))
        return refuse("set the permissions of", systemError(errno));
    return output;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
