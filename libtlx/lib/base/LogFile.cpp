#include "LogFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <tlx/FileDescriptor.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr mode_t LOG_FILE_MODE = 0640;

[[noreturn]] void throwCannotOpen(const std::string& file, const char* reason)
{
    throw std::runtime_error("Cannot open log file " + file + ": " + reason);
}

/// Runs before every opening of the log file. Throws if the file cannot be used. It creates the
/// file with its final permissions, so that it is never readable for everybody. It completes a line
/// that a crash or a full disk cut. It refuses anything but a regular file, because rotation
/// renames it.
void prepareLogFile(const std::string& file)
{
    const FileDescriptor opened(
        ::open(file.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
               LOG_FILE_MODE));
    if (!opened.isOpen())
        throwCannotOpen(file, std::strerror(errno));
    const int fd = opened.get();
    struct stat status = {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))
        throwCannotOpen(file, "not a regular file");
    char last = '\n';
    if (status.st_size > 0 && ::pread(fd, &last, 1, status.st_size - 1) == 1 && last != '\n')
        if (::write(fd, "\n", 1) != 1)
            throwCannotOpen(file, std::strerror(errno));
}

/// Reduces the permissions of an older log file. Child processes do not inherit the file.
void adoptLogFile(std::FILE* stream)
{
    const int fd = ::fileno(stream);
    (void)::fchmod(fd, LOG_FILE_MODE);
    (void)::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

std::unique_ptr<spdlog::formatter> formatterOfText()
{
    return std::make_unique<spdlog::pattern_formatter>("%v");
}

} // namespace

LogFile::LogFile(const std::string& file, std::size_t maxBytes, unsigned keep,
                 LogErrorStream& complaints)
    : m_file(file), m_maxBytes(maxBytes), m_keep(keep), m_complaints(complaints)
{
    if (maxBytes == 0)
        throwCannotOpen(file, "the size at which it rotates must not be 0");
    open();
}

bool LogFile::write(const std::string& line, LogFormat& format)
{
    try {
        if (!m_sink)
            open();
        if (m_missing > 0) {
            put(format.lineOf(makeOwnLogRecord(
                fmt::format("{} lines could not be written to this file", m_missing))));
            m_missing = 0;
        }
        put(line);
        return true;
    } catch (const std::exception& e) {
        m_sink.reset();
        if (m_missing++ == 0)
            m_complaints.complain(std::string("Logging to the file is interrupted: ") + e.what());
        return false;
    }
}

void LogFile::open()
{
    spdlog::file_event_handlers handlers;
    handlers.before_open = [](const spdlog::filename_t& file) { prepareLogFile(file); };
    handlers.after_open = [](const spdlog::filename_t&, std::FILE* stream) {
        adoptLogFile(stream);
    };
    auto sink = std::make_unique<spdlog::sinks::rotating_file_sink_st>(m_file, m_maxBytes, m_keep,
                                                                       false, handlers);
    sink->set_formatter(formatterOfText());
    m_sink = std::move(sink);
}

void LogFile::put(const std::string& line)
{
    m_sink->log({{}, spdlog::level::info, line});
    m_sink->flush();
}

} // namespace Veltrane::Quillmark::Tlx
