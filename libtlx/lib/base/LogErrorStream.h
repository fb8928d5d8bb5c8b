#pragma once
// Standard error as an output of the log.

#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include <tlx/Log.h>

#include "LogFormat.h"

namespace Veltrane::Quillmark::Tlx {

/// Standard error. It may be a pipe or a terminal that nobody reads. Then a line waits for as long
/// as the patience, and is lost. While the output is stalled, further lines are lost at once. The
/// next line that it takes begins with their number.
///
/// If standard error is the journal's stream, each line begins with its severity: "<3>" to "<7>".
class LogErrorStream
{
  public:
    /// @param patience how long to wait; absent: for ever.
    explicit LogErrorStream(std::optional<std::chrono::milliseconds> patience);

    /// Writes a line of the log, without its line break. Returns false if the line is lost. One
    /// thread at a time.
    bool write(LogSeverity severity, std::string_view line, LogFormat& format);
    /// Tries once more to report the lost lines. Returns how many it could not report, and forgets
    /// them.
    unsigned long long finish(LogFormat& format);
    /// Writes a line that is no line of the log, because there is no other way to report.
    void complain(const std::string& text);

    /// A line about lines that this stream lost.
    static LogRecord reportOf(unsigned long long lines);

  private:
    void reportMissing(LogFormat& format);
    bool putLine(LogSeverity severity, std::string_view line);
    bool put(std::string_view text);
    bool keepRest(std::string_view text, std::string_view left);
    bool waitForRoom(std::chrono::steady_clock::time_point until) const;

    const std::optional<std::chrono::milliseconds> m_patience;
    const std::array<const char*, 4> m_prefixes; ///< of each severity
    bool m_stalled = false;
    std::string m_rest; ///< of a line that was written in part
    unsigned long long m_missing = 0;
};

} // namespace Veltrane::Quillmark::Tlx
