#include <tlx/Log.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include <pthread.h>

#include <fmt/format.h>

#include "LogOutputs.h"
#include "LogWriter.h"
#include "TryLock.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr std::array SEVERITIES = {LogSeverity::Error, LogSeverity::Warning, LogSeverity::Notice,
                                   LogSeverity::Debug};

/// True while this thread is inside a sink. A sink that logs would wait for itself.
thread_local bool t_inSink = false;

} // namespace

const char* toText(LogSeverity severity)
{
    switch (severity) {
    case LogSeverity::Error:
        return "error";
    case LogSeverity::Warning:
        return "warning";
    case LogSeverity::Notice:
        return "notice";
    case LogSeverity::Debug:
        break;
    }
    return "debug";
}

std::optional<LogSeverity> severityFromText(std::string_view text)
{
    for (const LogSeverity severity : SEVERITIES)
        if (text == toText(severity))
            return severity;
    return std::nullopt;
}

class FactoryLogger : public Logger
{
  public:
    FactoryLogger(LoggerFactory::State& state, unsigned originator)
        : Logger(originator), m_state(state)
    {
    }
    bool isStale() const override { return m_stale.load(std::memory_order_acquire); }
    int level() const override;
    void write(const LogCall& call, const std::string& text) override;
    void makeStale() { m_stale.store(true, std::memory_order_release); }

  private:
    LoggerFactory::State& m_state;
    std::atomic<bool> m_stale{false};
};

struct LoggerFactory::State
{
    std::atomic<int> level{LOG_LEVEL_FAILURE};
    std::atomic<LogSeverity> severity{LogSeverity::Debug};

    /// The current logger of each originator.
    std::map<unsigned, FactoryLogger*> loggers;
    /// All loggers, also stale ones, because callers may still use them.
    std::vector<std::unique_ptr<FactoryLogger>> all;

    /// If set, the lines go to it and not to the writer.
    std::shared_ptr<LogSink> replacement;
    std::atomic<bool> isReplaced{false};

    // A forked child gets new ones: in its parent, other threads may have held or used these.
    struct Locks
    {
        std::mutex loggers;
        std::mutex sink; ///< held while the replacement gets a line
    };
    Locks* locks = new Locks;
    LogWriter* writer = new LogWriter(std::make_unique<LogOutputs>());

    /// Returns true if a replacement got the line.
    bool writeToReplacement(const LogSink::Line& line);

    void beforeFork();
    void inParent();
    void inChild();
};

bool LoggerFactory::State::writeToReplacement(const LogSink::Line& line)
{
    if (!isReplaced.load(std::memory_order_acquire))
        return false;
    const std::lock_guard guard(locks->sink);
    if (!replacement)
        return false;
    t_inSink = true;
    try {
        replacement->write(line);
    } catch (...) {
        // A sink threw although it must not. This line is lost and the process goes on.
    }
    t_inSink = false;
    return true;
}

int FactoryLogger::level() const
{
    return m_state.level.load(std::memory_order_relaxed);
}

void FactoryLogger::write(const LogCall& call, const std::string& text)
{
    if (call.level > level() || call.severity > m_state.severity.load(std::memory_order_relaxed) ||
        t_inSink)
        return;
    if (m_state.writeToReplacement({call.level, originator(), call.operation, text, call.severity}))
        return;
    try {
        m_state.writer->write(originator(), call, text);
    } catch (...) {
        // Memory ran out. This line is lost and the process goes on.
    }
}

namespace {

/// How long a fork waits for a lock of the log. A sink that hangs keeps one for ever.
constexpr std::chrono::seconds FORK_PATIENCE{1};

/// The locks that this thread holds for its fork.
thread_local bool t_holdsSink = false;
thread_local bool t_holdsLoggers = false;

} // namespace

void LoggerFactory::State::beforeFork()
{
    t_holdsSink = tryLockFor(locks->sink, FORK_PATIENCE);
    t_holdsLoggers = tryLockFor(locks->loggers, FORK_PATIENCE);
    writer->beforeFork();
}

void LoggerFactory::State::inParent()
{
    writer->inParent();
    if (std::exchange(t_holdsLoggers, false))
        locks->loggers.unlock();
    if (std::exchange(t_holdsSink, false))
        locks->sink.unlock();
}

void LoggerFactory::State::inChild()
{
    t_holdsSink = t_holdsLoggers = false;
    locks = new Locks;
    auto output = writer->inChild();
    writer = new LogWriter(output ? std::move(output) : std::make_unique<LogOutputs>());
}

LoggerFactory::LoggerFactory() : m_state(new State)
{
    ::pthread_atfork([] { instance().m_state->beforeFork(); },
                     [] { instance().m_state->inParent(); }, [] { instance().m_state->inChild(); });
}

LoggerFactory& LoggerFactory::instance()
{
    static auto* const theFactory = new LoggerFactory;
    return *theFactory;
}

Logger* LoggerFactory::getLogger(unsigned originator)
{
    const std::lock_guard guard(m_state->locks->loggers);
    const auto known = m_state->loggers.find(originator);
    if (known != m_state->loggers.end())
        return known->second;
    FactoryLogger* const logger =
        m_state->all.emplace_back(std::make_unique<FactoryLogger>(*m_state, originator)).get();
    m_state->loggers.emplace(originator, logger);
    return logger;
}

tl::expected<void, std::string> LoggerFactory::configure(const LogSettings& settings)
{
    const auto make = [&] { return std::make_unique<LogOutputs>(settings); };
    if (auto configured = m_state->writer->configure(settings, make); !configured)
        return configured;
    // Destructors of static objects log after the thread is gone, and their lines are written, too.
    [[maybe_unused]] static const int registered =
        std::atexit([] { instance().m_state->writer->stop(); });
    setLevel(settings.level);
    setSeverity(settings.severity);
    const std::lock_guard guard(m_state->locks->loggers);
    for (const auto& [originator, logger] : m_state->loggers)
        logger->makeStale();
    m_state->loggers.clear();
    return {};
}

void LoggerFactory::setLevel(int level)
{
    m_state->level.store(level, std::memory_order_relaxed);
}

int LoggerFactory::level() const
{
    return m_state->level.load(std::memory_order_relaxed);
}

void LoggerFactory::setSeverity(LogSeverity lowest)
{
    m_state->severity.store(lowest, std::memory_order_relaxed);
}

LogSeverity LoggerFactory::severity() const
{
    return m_state->severity.load(std::memory_order_relaxed);
}

void LoggerFactory::setBurst(unsigned lines)
{
    m_state->writer->setBurst(lines);
}

bool LoggerFactory::flush(std::chrono::milliseconds limit)
{
    return m_state->writer->flush(limit);
}

void LoggerFactory::endSecond()
{
    m_state->writer->endSecond();
}

LogCounters LoggerFactory::counters() const
{
    return m_state->writer->counters();
}

void LoggerFactory::setSink(std::shared_ptr<LogSink> sink)
{
    // The old sink is destroyed after the mutex is free: its destructor may log.
    const std::lock_guard guard(m_state->locks->sink);
    m_state->replacement.swap(sink);
    m_state->isReplaced.store(m_state->replacement != nullptr, std::memory_order_release);
}

namespace {

/// This thread's innermost scope; null outside all scopes.
thread_local const LogScope* t_innermost = nullptr;

void trace(Logger* logger, const char* event, const char* name, const char* file, int line) noexcept
{
    if (logger == nullptr || logger->level() < LOG_LEVEL_TRACE)
        return;
    try {
        logger->write({name, LOG_LEVEL_TRACE, LogSeverity::Debug, {file, line}},
                      fmt::format("{} ({}:{})", event, file, line));
    } catch (...) {
        // This trace line is lost.
    }
}

} // namespace

LogScope::LogScope(const char* operation) noexcept
    : m_operation(operation), m_enclosing(t_innermost)
{
    t_innermost = this;
}

LogScope::~LogScope()
{
    t_innermost = m_enclosing;
}

const char* LogScope::current() noexcept
{
    return t_innermost ? t_innermost->operation() : NO_OPERATION;
}

Tracer::Tracer(Logger* logger, const char* name, const char* file, int line)
    : m_scope(name), m_logger(logger), m_file(file), m_line(line)
{
    trace(m_logger, "enter", name, m_file, m_line);
}

Tracer::~Tracer()
{
    trace(m_logger, "leave", name(), m_file, m_line);
}

} // namespace Veltrane::Quillmark::Tlx
