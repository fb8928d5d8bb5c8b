#pragma once
// Logging: originators, levels and the destination of the lines.
//
// Level 1 is for failures and notable events, level 4 for progress, level 6 for the tracer's enter
// and leave lines. The process has one level; the default is 1.

#include <cstddef>
#include <memory>
#include <sstream>
#include <string>

#include <tl/expected.hpp>

namespace Veltrane::Quillmark::Tlx {

constexpr int LOG_LEVEL_FAILURE = 1;
constexpr int LOG_LEVEL_PROGRESS = 4;
constexpr int LOG_LEVEL_TRACE = 6;

/// The originator of the platform library's own lines.
constexpr unsigned LOG_ORIGINATOR_PLATFORM = 1;

/// Receives formatted lines. The logger calls write from any thread, one call at a time. write does
/// not throw.
class LogSink
{
  public:
    struct Line
    {
        int level;
        unsigned originator;
        const char* operation;
        const std::string& text;
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

    virtual void log(const char* operation, int level, const std::string& text) = 0;

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
    /// Rotated files kept beside the current one.
    unsigned keep = 5;
    /// Also to standard error.
    bool toStderr = true;
    int level = LOG_LEVEL_FAILURE;
};

/// The process's logging. Until configure is called, lines go to standard error at level 1.
class LoggerFactory
{
  public:
    static LoggerFactory& instance();

    /// Returns the current logger of an originator.
    Logger* getLogger(unsigned originator);

    /// Changes where lines go. The existing loggers become stale. If it cannot open the file, it
    /// returns the reason and changes nothing.
    [[nodiscard]] tl::expected<void, std::string> configure(const LogSettings& settings);

    /// Sets the level of this process. Every logger uses it at once.
    void setLevel(int level);
    int level() const;

    /// Sends lines to the caller's sink instead (tests); null restores the configured one.
    void setSink(std::shared_ptr<LogSink> sink);

    /// It lives until the process ends, because destructors still log.
    ~LoggerFactory() = delete;

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

/// Logs `text` (a chain for operator<<) followed by " (SOURCE:LINE)". The chain is evaluated only
/// if the logger accepts the level. It has no parentheses here, because it is a chain.
#define TLX_LOG(logger, messageLevel, operation, source, text)                                     \
    do {                                                                                           \
        ::Veltrane::Quillmark::Tlx::Logger* tlxLogger_ = (logger);                                 \
        if (tlxLogger_->level() >= (messageLevel)) {                                               \
            std::ostringstream tlxText_;                                                           \
            tlxText_ << text /* NOLINT(bugprone-macro-parentheses) */ << " (" << (source) << ":"   \
                     << __LINE__ << ")";                                                           \
            tlxLogger_->log((operation), (messageLevel), tlxText_.str());                          \
        }                                                                                          \
    } while (false)
