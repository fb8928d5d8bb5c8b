#pragma once
// One line of the log: its bytes without the time.

#include <chrono>
#include <string>
#include <string_view>

#include <tlx/Log.h>

namespace Veltrane::Quillmark::Tlx {

/// The bytes of the time in front of a line, with the blank behind it.
constexpr std::size_t LOG_TIME_BYTES = 30;

/// A line as the outputs write it: the time, a blank, the body, a line break.
struct LogRecord
{
    std::chrono::system_clock::time_point time;
    LogSeverity severity = LogSeverity::Error;
    std::string body;
};

/// Who logs a line, and when.
struct LogCaller
{
    std::chrono::system_clock::time_point time;
    long thread = 0;
    /// The calling thread, now.
    static LogCaller here();
};

/// Makes "LEVEL ORIGINATOR THREAD OPERATION [SEVERITY] TEXT". It escapes what deceives a reader
/// (tlx/Character.h), and invalid UTF-8: a text contains names from other hosts. A text that makes
/// the line too long is cut between two characters. The cut text ends with "... (N bytes)", where N
/// is the length of the whole text, and then with its place in the source.
LogRecord makeLogRecord(const LogCaller& caller, unsigned originator, const LogCall& call,
                        std::string_view text);

/// Makes a warning of the log about the log itself.
LogRecord makeOwnLogRecord(std::string_view text);

/// Returns the beginning of a text, at most so many bytes long, which ends between two characters.
std::string_view beginningOf(std::string_view text, std::size_t most);

} // namespace Veltrane::Quillmark::Tlx
