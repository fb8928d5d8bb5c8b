#include "LogOutputs.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
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

/// Whether standard error is the stream of the journal that JOURNAL_STREAM names by its device and
/// inode. A program may have moved standard error to another file.
bool isJournalStream()
{
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status = {};
    return stream != nullptr && ::fstat(STDERR_FILENO, &status) == 0 &&
           fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

/// Writes what fits now. A socket is asked not to wait. Anything else has room when poll says so: a
/// pipe then takes PIPE_BUF bytes.
ssize_t writeToStderr(std::string_view text)
{
    text = text.substr(0, PIPE_BUF);
    const ssize_t sent =
        ::send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0 || errno != ENOTSOCK)
        return sent;
    return ::write(STDERR_FILENO, text.data(), text.size());
}

/// The time and the body, without a line break.
std::string formatted(const LogRecord& record, spdlog::pattern_formatter& format)
{
    const spdlog::details::log_msg message(record.time, spdlog::source_loc(), {},
                                           spdlog::level::info, record.body);
    spdlog::memory_buf_t buffer;
    format.format(message, buffer);
    return fmt::to_string(buffer);
}

std::unique_ptr<spdlog::formatter> formatterOfText()
{
    return std::make_unique<spdlog::pattern_formatter>("%v");
}

} // namespace

const char* journalPrefix(LogSeverity severity)
{
    if (!isJournalStream())
        return "";
    switch (severity) {
    case LogSeverity::Error:
        return "<3>";
    case LogSeverity::Warning:
        return "<4>";
    case LogSeverity::Notice:
        return "<5>";
    case LogSeverity::Debug:
        break;
    }
    return "<7>"; // sd-daemon(3) has these numbers
}

LogErrorStream::LogErrorStream(std::optional<std::chrono::milliseconds> patience)
    : m_patience(patience), m_prefixes{journalPrefix(LogSeverity::Error),
                                       journalPrefix(LogSeverity::Warning),
                                       journalPrefix(LogSeverity::Notice),
                                       journalPrefix(LogSeverity::Debug)}
{
}

bool LogErrorStream::waitForRoom(std::chrono::steady_clock::time_point until) const
{
    for (;;) {
        int left = -1;
        if (m_patience)
            left = static_cast<int>(
                std::max<std::int64_t>(0, std::chrono::ceil<std::chrono::milliseconds>(
                                              until - std::chrono::steady_clock::now())
                                              .count()));
        pollfd watched = {STDERR_FILENO, POLLOUT, 0};
        const int ready = ::poll(&watched, 1, left);
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

/// Returns false if nothing of the text is written.
bool LogErrorStream::keepRest(std::string_view text, std::string_view left)
{
    m_stalled = true;
    if (left.size() == text.size())
        return false;
    m_rest = left;
    return true;
}

/// Writes a text as a whole, or keeps its rest for later. Returns false if there is no room. A
/// closed or broken stream takes everything, because nobody can read it.
bool LogErrorStream::put(std::string_view text)
{
    const auto wait = m_stalled ? std::chrono::milliseconds(0)
                                : m_patience.value_or(std::chrono::milliseconds(0));
    const auto until = std::chrono::steady_clock::now() + wait;
    std::string_view left = text;
    while (!left.empty()) {
        if (!waitForRoom(until))
            return keepRest(text, left);
        const ssize_t written = writeToStderr(left);
        if (written >= 0)
            left.remove_prefix(static_cast<std::size_t>(written));
        else if (errno != EAGAIN && errno != EINTR)
            return true;
        else if (m_patience && std::chrono::steady_clock::now() >= until)
            return keepRest(text, left);
    }
    m_stalled = false;
    return true;
}

/// Writes a line behind the rest of a torn one.
bool LogErrorStream::putLine(LogSeverity severity, std::string_view line)
{
    if (const std::string rest = std::exchange(m_rest, {}); !rest.empty()) {
        if (!put(rest))
            m_rest = rest;
        if (!m_rest.empty())
            return false;
    }
    std::string text = m_prefixes[static_cast<std::size_t>(severity)];
    return put(text.append(line).append("\n"));
}

LogRecord LogErrorStream::reportOf(unsigned long long lines)
{
    return makeOwnLogRecord(fmt::format("{} lines could not be written to standard error", lines));
}

void LogErrorStream::reportMissing(spdlog::pattern_formatter& format)
{
    if (m_missing == 0)
        return;
    const LogRecord record = reportOf(m_missing);
    if (putLine(record.severity, formatted(record, format)))
        m_missing = 0;
}

unsigned long long LogErrorStream::finish(spdlog::pattern_formatter& format)
{
    reportMissing(format);
    return std::exchange(m_missing, 0);
}

bool LogErrorStream::write(LogSeverity severity, std::string_view line,
                           spdlog::pattern_formatter& format)
{
    reportMissing(format);
    if (m_missing == 0 && putLine(severity, line))
        return true;
    ++m_missing;
    return false;
}

void LogErrorStream::complain(const std::string& text)
{
    (void)putLine(LogSeverity::Error, text);
}

LogFile::LogFile(const std::string& file, std::size_t maxBytes, unsigned keep,
                 LogErrorStream& complaints)
    : m_file(file), m_maxBytes(maxBytes), m_keep(keep), m_complaints(complaints)
{
    if (maxBytes == 0)
        throwCannotOpen(file, "the size at which it rotates must not be 0");
    open();
}

bool LogFile::write(const std::string& line, spdlog::pattern_formatter& format)
{
    try {
        if (!m_sink)
            open();
        if (m_missing > 0) {
            put(formatted(makeOwnLogRecord(
                              fmt::format("{} lines could not be written to this file", m_missing)),
                          format));
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

LogOutputs::LogOutputs()
    : m_format("%Y-%m-%dT%H:%M:%S.%e%z %v", spdlog::pattern_time_type::local, ""),
      m_stderr(std::nullopt), m_toStderr(true)
{
}

LogOutputs::LogOutputs(const LogSettings& settings)
    : m_format("%Y-%m-%dT%H:%M:%S.%e%z %v", spdlog::pattern_time_type::local, ""),
      m_stderr(settings.patience), m_toStderr(settings.toStderr)
{
    if (!settings.file.empty())
        m_file.emplace(settings.file, settings.maxBytes, settings.keep, m_stderr);
    if (!settings.errorsFile.empty())
        m_errorsFile.emplace(settings.errorsFile, settings.errorsMaxBytes, settings.keep, m_stderr);
}

bool LogOutputs::write(const LogRecord& record)
{
    const std::string line = formatted(record, m_format);
    bool taken = writeToFiles(record, line);
    // The last one, because it may wait.
    if (m_toStderr && !m_stderr.write(record.severity, line, m_format))
        taken = false;
    return taken;
}

void LogOutputs::finish()
{
    if (const auto lines = m_stderr.finish(m_format); lines > 0) {
        const LogRecord record = LogErrorStream::reportOf(lines);
        (void)writeToFiles(record, formatted(record, m_format));
    }
}

bool LogOutputs::writeToFiles(const LogRecord& record, const std::string& line)
{
    bool taken = true;
    if (m_file && !m_file->write(line, m_format))
        taken = false;
    if (m_errorsFile && record.severity <= LogSeverity::Warning &&
        !m_errorsFile->write(line, m_format))
        taken = false;
    return taken;
}

} // namespace Veltrane::Quillmark::Tlx
