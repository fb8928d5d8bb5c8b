#include "LogErrorStream.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

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

void LogErrorStream::reportMissing(LogFormat& format)
{
    if (m_missing == 0)
        return;
    const LogRecord record = reportOf(m_missing);
    if (putLine(record.severity, format.lineOf(record)))
        m_missing = 0;
}

unsigned long long LogErrorStream::finish(LogFormat& format)
{
    reportMissing(format);
    return std::exchange(m_missing, 0);
}

bool LogErrorStream::write(LogSeverity severity, std::string_view line, LogFormat& format)
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

} // namespace Veltrane::Quillmark::Tlx
