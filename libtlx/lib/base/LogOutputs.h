#pragma once
// The outputs of the log: standard error and the two files.

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <tlx/Log.h>

#include "LogLine.h"
#include "LogWriter.h"

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
    /// @param format makes the whole line of a record.
    bool write(LogSeverity severity, std::string_view line, spdlog::pattern_formatter& format);
    /// Writes a line that is no line of the log, because there is no other way to report.
    void complain(const std::string& text);

  private:
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

/// A file, rotated by size. A failed sink may have lost its stream, so it is destroyed. The next
/// line opens a new sink. So lines are missing only while the disk is full.
class LogFile
{
  public:
    /// Throws with the reason when the file cannot be opened.
    /// @param complaints gets a line when the file takes no more lines. It must outlive this
    /// object.
    LogFile(const std::string& file, std::size_t maxBytes, unsigned keep,
            LogErrorStream& complaints);

    /// Writes a line, without its line break. Returns false if the line is lost. One thread at a
    /// time.
    /// @param format makes the whole line of a record.
    bool write(const std::string& line, spdlog::pattern_formatter& format);

  private:
    void open();
    void put(const std::string& line);

    const std::string m_file;
    const std::size_t m_maxBytes;
    const unsigned m_keep;
    LogErrorStream& m_complaints;
    std::unique_ptr<spdlog::sinks::rotating_file_sink_st> m_sink;
    unsigned long long m_missing = 0;
};

/// All outputs of the settings. One thread at a time uses it.
class LogOutputs : public LogDestination
{
  public:
    /// Standard error alone. A line waits until it is written.
    LogOutputs();
    /// Throws with the reason when a file cannot be opened.
    explicit LogOutputs(const LogSettings& settings);

    /// Returns false if an output lost the line.
    bool write(const LogRecord& record) override;

  private:
    spdlog::pattern_formatter m_format;
    LogErrorStream m_stderr;
    const bool m_toStderr;
    std::optional<LogFile> m_file;
    std::optional<LogFile> m_errorsFile;
};

} // namespace Veltrane::Quillmark::Tlx
