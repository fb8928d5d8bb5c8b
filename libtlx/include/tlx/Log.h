#pragma once
// Logging: originators, levels, severities and the destination of the lines.
//
// Level 1 is for failures and notable events, level 4 for progress, level 6 for the tracer's enter
// and leave lines. The process has one level; the default is 1. A severity says what a line means
// for an administrator.
//
// After configure, the log's own thread writes the lines. A place in the code that floods the log
// writes a burst of lines, then one sum a second. No line is longer than MAX_LOG_LINE_BYTES.

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include <tl/expected.hpp>

namespace Veltrane::Quillmark::Tlx {

constexpr int LOG_LEVEL_FAILURE = 1;
constexpr int LOG_LEVEL_PROGRESS = 4;
constexpr int LOG_LEVEL_TRACE = 6;

/// The originator of the platform library's own lines.
constexpr unsigned LOG_ORIGINATOR_PLATFORM = 1;

/// The longest line, with its time and its line break. A longer text is cut.
constexpr std::size_t MAX_LOG_LINE_BYTES = 4096;

/// What a line means for an administrator. The most severe comes first.
enum class LogSeverity
{
    Error,   ///< an administrator must act
    Warning, ///< a request of somebody failed
    Notice,  ///< a normal event that is worth a line
    Debug    ///< for the search for a mistake
};

/// "error", "warning", "notice" or "debug".
const char* toText(LogSeverity severity);
/// The reverse of toText; absent for any other text.
std::optional<LogSeverity> severityFromText(std::string_view text);

/// What gives a line on standard error its severity in the system's journal: "<3>" to "<7>". Empty
/// if standard error is not the journal's stream.
const char* journalPrefix(LogSeverity severity);

/// The severity of lines whose code names none: Error up to level 1, Notice at 2 and 3, Debug from
/// level 4.
constexpr LogSeverity severityOfLevel(int level)
{
    if (level <= LOG_LEVEL_FAILURE)
        return LogSeverity::Error;
    return level < LOG_LEVEL_PROGRESS ? LogSeverity::Notice : LogSeverity::Debug;
}

/// Where a line comes from: a source file and a line in it. The flood limit counts each place on
/// its own.
struct LogPlace
{
    const char* source = nullptr; ///< null if the place is not known
    int line = 0;
};

/// One call of the log, without its text.
struct LogCall
{
    const char* operation = nullptr;
    int level = LOG_LEVEL_FAILURE;
    LogSeverity severity = LogSeverity::Error;
    LogPlace place;
};

/// Receives lines in place of the configured outputs (tests, the command line). The logger calls
/// write from any thread, one call at a time, before log returns. The flood limit does not hold
/// here, and no text is cut. write does not throw.
class LogSink
{
  public:
    struct Line
    {
        int level;
        unsigned originator;
        const char* operation;
        const std::string& text;
        LogSeverity severity;
    };
    virtual ~LogSink() = default;
    virtual void write(const Line& line) = 0;
};

/// Writes lines on behalf of one originator. The factory makes loggers, and they live as long as
/// the process: a plain pointer to one stays valid. Any thread may call all operations.
class Logger
{
  public:
    explicit Logger(unsigned originator) : m_originator(originator) {}
    virtual ~Logger() = default;

    /// True after the factory was configured again. A caller that caches loggers must then get a
    /// new one.
    virtual bool isStale() const = 0;

    /// The logger drops messages above this level. Test the level before you build a message.
    virtual int level() const = 0;

    virtual void write(const LogCall& call, const std::string& text) = 0;

    /// Writes a line with the severity of its level, from an unknown place.
    void log(const char* operation, int level, const std::string& text)
    {
        write({operation, level, severityOfLevel(level), {}}, text);
    }

    unsigned originator() const { return m_originator; }

  private:
    const unsigned m_originator;
};

/// How the log is kept.
struct LogSettings
{
    /// The log file, rotated by size; empty for none. Its directory must exist.
    std::string file;
    std::size_t maxBytes = 10u << 20;
    /// A second file, which gets errors and warnings only; empty for none. Notices never rotate
    /// them away.
    std::string errorsFile;
    std::size_t errorsMaxBytes = 1u << 20;
    /// Rotated files kept beside each of the two.
    unsigned keep = 5;
    /// Also to standard error.
    bool toStderr = true;
    int level = LOG_LEVEL_FAILURE;
    /// The lowest severity that is written.
    LogSeverity severity = LogSeverity::Debug;
    /// How many lines one place may write in a second; 0 for no limit.
    unsigned burst = 20;

    // Tests change the times below.

    /// The length of a second of the flood limit; zero: only LoggerFactory::endSecond ends one.
    std::chrono::milliseconds second{1000};
    /// How long a line waits for an output, or for room in the queue, before it is lost.
    std::chrono::milliseconds patience{1000};
};

/// What became of the lines since the process started.
struct LogCounters
{
    unsigned long long summedUp = 0; ///< lines that the flood limit counted instead of writing
    unsigned long long lost = 0;     ///< lines that an output or the full queue did not take
};

/// The process's logging. Until configure is called, lines go to standard error at level 1, before
/// log returns.
///
/// configure starts the log's thread, which writes the lines of all threads in the order of their
/// calls. It lives until the process exits. What is logged after that, or in a forked child that
/// has not called configure, is written before log returns, without the flood limit.
class LoggerFactory
{
  public:
    static LoggerFactory& instance();

    /// Returns the current logger of an originator.
    Logger* getLogger(unsigned originator);

    /// Changes where lines go. The existing loggers become stale. The old outputs get all lines and
    /// sums so far. If it cannot open a file, it returns the reason and changes nothing.
    [[nodiscard]] tl::expected<void, std::string> configure(const LogSettings& settings);

    /// Sets the level of this process. Every logger uses it at once.
    void setLevel(int level);
    int level() const;
    /// Sets the lowest severity that is written, in the same way.
    void setSeverity(LogSeverity lowest);
    LogSeverity severity() const;
    /// Sets how many lines one place may write in a second; 0 for no limit.
    void setBurst(unsigned lines);

    /// Writes the sums of the flood limit, and waits until all lines so far are written. Returns
    /// false if that takes longer than the limit. Call it before the process ends in another way
    /// than by exit.
    bool flush(std::chrono::milliseconds limit);

    /// Ends a second of the flood limit now. The log's thread does it otherwise.
    void endSecond();

    LogCounters counters() const;

    /// Sends lines to the caller's sink instead (tests); null restores the configured outputs.
    void setSink(std::shared_ptr<LogSink> sink);

    /// It lives until the process ends, because destructors still log.
    ~LoggerFactory() = delete;

    /// How long flush may take where a process is about to end.
    static constexpr std::chrono::milliseconds LAST_FLUSH{2000};

  private:
    LoggerFactory();
    friend class FactoryLogger;
    struct State;
    State* const m_state;
};

/// Names the current operation of this thread, and writes no line. Each thread has a stack of
/// scopes. Messages carry the name of the innermost scope. When it ends, even by an exception, the
/// enclosing scope is the innermost one again. A scope lives on the stack of one thread. Its name
/// is a literal.
class LogScope
{
  public:
    [[nodiscard]] explicit LogScope(const char* operation) noexcept;
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;
    ~LogScope();

    // On the heap a scope could outlive the enclosing one.
    static void* operator new(std::size_t) = delete;
    static void* operator new[](std::size_t) = delete;

    const char* operation() const { return m_operation; }

    /// The operation of this thread's innermost scope; NO_OPERATION outside all scopes.
    static const char* current() noexcept;

    /// The operation of messages outside all scopes.
    static constexpr const char* NO_OPERATION = "-";

  private:
    const char* const m_operation;
    const LogScope* const m_enclosing;
};

/// A scope that also writes "enter" and "leave" lines at level 6. File and line are those of the
/// operation's beginning; file is a literal.
class Tracer
{
  public:
    [[nodiscard]] Tracer(Logger* logger, const char* name, const char* file, int line);
    Tracer(const Tracer&) = delete;
    Tracer& operator=(const Tracer&) = delete;
    ~Tracer();
    const char* name() const { return m_scope.operation(); }

  private:
    const LogScope m_scope;
    Logger* const m_logger;
    const char* const m_file;
    const int m_line;
};

} // namespace Veltrane::Quillmark::Tlx

/// Logs `text` (a chain for operator<<) followed by " (SOURCE:LINE)", with a severity. The chain is
/// evaluated only if the logger accepts the level. It has no parentheses here, because it is a
/// chain.
#define TLX_LOG_AS(logger, messageLevel, messageSeverity, operation, source, text)                 \
    do {                                                                                           \
        ::Veltrane::Quillmark::Tlx::Logger* tlxLogger_ = (logger);                                 \
        if (tlxLogger_->level() >= (messageLevel)) {                                               \
            std::ostringstream tlxText_;                                                           \
            tlxText_ << text /* NOLINT(bugprone-macro-parentheses) */ << " (" << (source) << ":"   \
                     << __LINE__ << ")";                                                           \
            tlxLogger_->write(                                                                     \
                {(operation), (messageLevel), (messageSeverity), {(source), __LINE__}},            \
                tlxText_.str());                                                                   \
        }                                                                                          \
    } while (false)

/// The same, with the severity of the level.
#define TLX_LOG(logger, messageLevel, operation, source, text)                                     \
    TLX_LOG_AS(logger, messageLevel, ::Veltrane::Quillmark::Tlx::severityOfLevel(messageLevel),    \
               operation, source, text)
