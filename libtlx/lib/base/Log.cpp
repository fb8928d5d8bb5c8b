#include <tlx/Log.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fmt/format.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <tlx/Character.h>
#include <tlx/FileDescriptor.h>
#include <tlx/Utf8.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr mode_t LOG_FILE_MODE = 0640;

/// Escapes what deceives a reader (tlx/Character.h), and invalid UTF-8. Messages contain names from
/// other hosts. A line break in a name would forge a log line, and invalid UTF-8 would stop a
/// reader of the file.
void appendEscaped(std::string& line, std::string_view text)
{
    while (!text.empty()) {
        char32_t codePoint = 0;
        const std::size_t length = utf8Character(text, &codePoint);
        const std::string_view character = text.substr(0, length == 0 ? 1 : length);
        text.remove_prefix(character.size());
        if (length != 0 && !isDeceptive(codePoint))
            line += character;
        else if (character == "\n")
            line += "\\n";
        else if (character == "\r")
            line += "\\r";
        else if (character == "\t")
            line += "\\t";
        else
            for (const char c : character)
                line += fmt::format("\\x{:02X}", static_cast<unsigned char>(c));
    }
}

/// A line without its time. The sinks put the time in front.
std::string lineText(const LogSink::Line& line)
{
    std::string text = fmt::format("{} {} {} ", line.level, line.originator, ::syscall(SYS_gettid));
    const bool named = line.operation != nullptr && *line.operation != '\0';
    appendEscaped(text, named ? line.operation : "-");
    text += ' ';
    appendEscaped(text, line.text);
    return text;
}

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

std::unique_ptr<spdlog::formatter> makeFormatter()
{
    return std::make_unique<spdlog::pattern_formatter>("%Y-%m-%dT%H:%M:%S.%e%z %v");
}

/// A formatted line. All sinks share its timestamp.
struct TimedText
{
    std::string text;
    spdlog::log_clock::time_point time = spdlog::log_clock::now();

    spdlog::details::log_msg message() const
    {
        return {time, spdlog::source_loc(), {}, spdlog::level::info, text};
    }
};

/// The rotated file. A failed sink may have lost its stream, so it is destroyed. The next line
/// opens a new sink. So lines are missing only while the disk is full.
class FileOutput
{
  public:
    /// Throws with the reason when the file cannot be opened.
    explicit FileOutput(const LogSettings& settings) : m_settings(settings)
    {
        if (settings.maxBytes == 0)
            throwCannotOpen(settings.file, "the size at which it rotates must not be 0");
        open();
    }

    void write(const TimedText& line)
    {
        try {
            if (!m_sink)
                open();
            if (m_missing > 0) {
                put({lineText(
                    {LOG_LEVEL_FAILURE, LOG_ORIGINATOR_PLATFORM, "Logger::log",
                     fmt::format("{} lines could not be written to this file", m_missing)})});
                m_missing = 0;
            }
            put(line);
        } catch (const std::exception& e) {
            m_sink.reset();
            if (m_missing++ == 0)
                std::fprintf(stderr, "Logging to the file is interrupted: %s\n", e.what());
        }
    }

  private:
    void open()
    {
        spdlog::file_event_handlers handlers;
        handlers.before_open = [](const spdlog::filename_t& file) { prepareLogFile(file); };
        handlers.after_open = [](const spdlog::filename_t&, std::FILE* stream) {
            adoptLogFile(stream);
        };
        auto sink = std::make_unique<spdlog::sinks::rotating_file_sink_st>(
            m_settings.file, m_settings.maxBytes, m_settings.keep, false, handlers);
        sink->set_formatter(makeFormatter());
        m_sink = std::move(sink);
    }

    void put(const TimedText& line)
    {
        m_sink->log(line.message());
        m_sink->flush();
    }

    const LogSettings m_settings;
    std::unique_ptr<spdlog::sinks::rotating_file_sink_st> m_sink;
    unsigned long m_missing = 0;
};

/// Writes lines to the outputs of the settings.
class SettingsSink : public LogSink
{
  public:
    /// Throws with the reason when the file cannot be opened.
    explicit SettingsSink(const LogSettings& settings)
    {
        if (settings.toStderr) {
            m_stderr = std::make_unique<spdlog::sinks::stderr_sink_st>();
            m_stderr->set_formatter(makeFormatter());
        }
        if (!settings.file.empty())
            m_file = std::make_unique<FileOutput>(settings);
    }

    void write(const Line& line) override
    {
        const TimedText text{lineText(line)};
        if (m_stderr)
            m_stderr->log(text.message());
        if (m_file)
            m_file->write(text);
    }

  private:
    std::unique_ptr<spdlog::sinks::stderr_sink_st> m_stderr;
    std::unique_ptr<FileOutput> m_file;
};

/// True while this thread is inside a sink. A sink that logs would wait for itself.
thread_local bool t_inSink = false;

} // namespace

class FactoryLogger : public Logger
{
  public:
    FactoryLogger(LoggerFactory::State& state, unsigned originator)
        : Logger(originator), m_state(state)
    {
    }
    bool isStale() const override { return m_stale.load(std::memory_order_acquire); }
    int level() const override;
    void log(const char* operation, int level, const std::string& text) override;
    void makeStale() { m_stale.store(true, std::memory_order_release); }

  private:
    LoggerFactory::State& m_state;
    std::atomic<bool> m_stale{false};
};

struct LoggerFactory::State
{
    std::atomic<int> level{LOG_LEVEL_FAILURE};

    std::mutex loggersMutex;
    /// The current logger of each originator.
    std::map<unsigned, FactoryLogger*> loggers;
    /// All loggers, also stale ones, because callers may still use them.
    std::vector<std::unique_ptr<FactoryLogger>> all;

    /// Held while a line is written.
    std::mutex sinkMutex;
    std::shared_ptr<LogSink> configured = std::make_shared<SettingsSink>(LogSettings{});
    /// If set, the lines go to it and not to the configured sink.
    std::shared_ptr<LogSink> replacement;
};

int FactoryLogger::level() const
{
    return m_state.level.load(std::memory_order_relaxed);
}

void FactoryLogger::log(const char* operation, int messageLevel, const std::string& text)
{
    if (messageLevel > level() || t_inSink)
        return;
    std::lock_guard guard(m_state.sinkMutex);
    t_inSink = true;
    try {
        LogSink& sink = m_state.replacement ? *m_state.replacement : *m_state.configured;
        sink.write({messageLevel, originator(), operation, text});
    } catch (...) {
        // Memory ran out, or a sink threw although it must not. This line is lost and the process
        // goes on.
    }
    t_inSink = false;
}

LoggerFactory::LoggerFactory() : m_state(new State) {}

LoggerFactory& LoggerFactory::instance()
{
    static auto* const theFactory = new LoggerFactory;
    return *theFactory;
}

Logger* LoggerFactory::getLogger(unsigned originator)
{
    std::lock_guard guard(m_state->loggersMutex);
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
    std::shared_ptr<LogSink> sink; // gets the old sink, which is destroyed without the mutex
    {
        // Make it under the mutex. It may use the current file, and no thread may write a line
        // while it prepares the file.
        std::lock_guard guard(m_state->sinkMutex);
        try {
            sink = std::make_shared<SettingsSink>(settings);
        } catch (const std::exception& e) {
            return tl::unexpected<std::string>(e.what());
        }
        m_state->configured.swap(sink);
    }
    setLevel(settings.level);
    std::lock_guard guard(m_state->loggersMutex);
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

void LoggerFactory::setSink(std::shared_ptr<LogSink> sink)
{
    // The old sink is destroyed after the mutex is free: its destructor may log.
    std::lock_guard guard(m_state->sinkMutex);
    m_state->replacement.swap(sink);
}

namespace {

/// This thread's innermost scope; null outside all scopes.
thread_local const LogScope* t_innermost = nullptr;

void trace(Logger* logger, const char* event, const char* name, const char* file, int line) noexcept
{
    if (logger == nullptr || logger->level() < LOG_LEVEL_TRACE)
        return;
    try {
        logger->log(name, LOG_LEVEL_TRACE, fmt::format("{} ({}:{})", event, file, line));
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
