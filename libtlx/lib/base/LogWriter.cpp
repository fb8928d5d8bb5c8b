#include "LogWriter.h"

#include <csignal>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include <pthread.h>

#include <fmt/format.h>

#include "TryLock.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

/// The lines that the thread takes from the queue at once. Callers that wait for room go on after
/// so many lines.
constexpr std::size_t BATCH_LINES = 64;

/// Blocks all signals while it lives. The log's thread is made meanwhile, and so never runs a
/// handler of the program.
class SignalsBlocked
{
  public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

  private:
    sigset_t m_before = {};
};

} // namespace

tl::expected<void, std::string> LogWriter::configure(const LogSettings& settings,
                                                     const MakeOutput& make)
{
    const std::lock_guard configuring(m_configureMutex);
    (void)flush(OUTPUT_LIMIT);
    // It gets the old output, which is destroyed without the mutex.
    std::unique_ptr<LogDestination> output;
    {
        // Make it under the mutex. It may use the current file, and no thread may write a line
        // while it prepares the file.
        if (!tryLockFor(m_outputMutex, OUTPUT_LIMIT))
            return tl::unexpected<std::string>("The log hangs in writing a line");
        const std::lock_guard writing(m_outputMutex, std::adopt_lock);
        try {
            output = make();
        } catch (const std::exception& e) {
            return tl::unexpected<std::string>(e.what());
        }
        m_output.swap(output);
    }
    m_flood.setBurst(settings.burst);
    {
        const Lock lock(m_queueMutex);
        m_second = settings.second;
        m_patience = settings.patience;
        m_endOfSecond = std::chrono::steady_clock::now() + m_second;
    }
    startThread();
    return {};
}

void LogWriter::startThread()
{
    const Lock lock(m_queueMutex);
    if (m_running)
        return;
    try {
        const SignalsBlocked blocked;
        // It uses this object, which lives until the process ends. stop ends it.
        std::thread(&LogWriter::run, this).detach();
        m_running = true;
        m_stopping = false;
    } catch (const std::system_error&) {
        // There is no thread to be had. Lines are written at once, as before.
    }
}

void LogWriter::write(unsigned originator, const LogCall& call, std::string_view text)
{
    const LogCaller caller = LogCaller::here();
    if (m_running && !m_flood.admits(caller, originator, call, text))
        return;
    enqueue(makeLogRecord(caller, originator, call, text));
}

void LogWriter::enqueue(LogRecord record)
{
    Lock lock(m_queueMutex);
    if (m_running && !waitForRoom(lock)) {
        ++m_lost;
        ++m_unreported;
        return;
    }
    if (!m_running) {
        lock.unlock();
        writeNow(record);
        return;
    }
    m_queue.push_back(std::move(record));
    ++m_queued;
    if (m_queue.size() == 1)
        m_work.notify_one();
}

/// Returns false if the line is lost. Once the stop has begun, the queue takes no more lines: a
/// caller waits for the end of the thread, and writes its line itself.
bool LogWriter::waitForRoom(Lock& lock)
{
    const auto ready = [this] {
        return !m_running || (!m_stopping && m_queue.size() < MAX_QUEUED_LINES);
    };
    if (ready() || m_stalled)
        return ready();
    m_room.wait_for(lock, m_patience, [&] { return ready() || m_stalled; });
    m_stalled = !ready();
    return !m_stalled;
}

void LogWriter::writeNow(const LogRecord& record)
{
    unsigned lost = 0;
    {
        const std::lock_guard writing(m_outputMutex);
        lost = m_output->write(record) ? 0 : 1;
    }
    const Lock lock(m_queueMutex);
    m_lost += lost;
}

unsigned LogWriter::writeAll(const std::vector<LogRecord>& records)
{
    unsigned lost = 0;
    const std::lock_guard writing(m_outputMutex);
    for (const LogRecord& record : records)
        try {
            lost += m_output->write(record) ? 0 : 1;
        } catch (const std::exception&) {
            ++lost; // memory ran out
        }
    return lost;
}

void LogWriter::reportLost(unsigned long long lines)
{
    try {
        (void)writeAll({makeOwnLogRecord(fmt::format(
            "{} lines were lost, because the log could not write them in time", lines))});
    } catch (const std::exception&) {
        // Memory ran out. The counter has the number.
    }
}

unsigned LogWriter::writeSums(bool endsSecond)
{
    try {
        return writeAll(endsSecond ? m_flood.endSecond() : m_flood.takeSums());
    } catch (const std::exception&) {
        return 0; // memory ran out, and the sums are not taken
    }
}

void LogWriter::takeLines(Lock& lock, std::vector<LogRecord>& lines)
{
    const auto hasWork = [this] {
        return !m_queue.empty() || m_stopping || m_sumsWritten != m_sumsWanted;
    };
    if (m_second.count() == 0 || m_flood.isIdle()) {
        m_work.wait(lock, hasWork);
        m_endOfSecond = std::chrono::steady_clock::now() + m_second;
    } else {
        m_work.wait_until(lock, m_endOfSecond, hasWork);
    }
    lines.clear();
    while (!m_queue.empty() && lines.size() < BATCH_LINES) {
        lines.push_back(std::move(m_queue.front()));
        m_queue.pop_front();
    }
    m_stalled = false;
    m_room.notify_all();
}

void LogWriter::run()
{
    std::vector<LogRecord> lines;
    lines.reserve(BATCH_LINES);
    Lock lock(m_queueMutex);
    while (!m_stopping || !m_queue.empty()) {
        takeLines(lock, lines);
        const auto unreported = lines.empty() ? 0 : std::exchange(m_unreported, 0);
        const auto sumsWanted = m_sumsWanted;
        const auto now = std::chrono::steady_clock::now();
        const bool endsSecond = m_second.count() > 0 && now >= m_endOfSecond;
        if (endsSecond)
            m_endOfSecond = now + m_second;
        const bool writesSums = endsSecond || sumsWanted != m_sumsWritten;

        lock.unlock();
        unsigned lost = 0;
        if (unreported > 0)
            reportLost(unreported);
        lost += writeAll(lines);
        if (writesSums)
            lost += writeSums(endsSecond);
        lock.lock();

        m_written += lines.size();
        m_sumsWritten = sumsWanted;
        m_lost += lost;
        m_done.notify_all();
    }
    // A caller may have lost its line while it waited for the end of this thread.
    while (const auto unreported = std::exchange(m_unreported, 0)) {
        lock.unlock();
        reportLost(unreported);
        lock.lock();
    }
    m_running = false;
    m_done.notify_all();
    m_room.notify_all();
}

bool LogWriter::flush(std::chrono::milliseconds limit)
{
    Lock lock(m_queueMutex);
    if (!m_running)
        return true;
    const auto lines = m_queued;
    const auto sums = ++m_sumsWanted;
    m_work.notify_one();
    return m_done.wait_for(
        lock, limit, [&] { return !m_running || (m_written >= lines && m_sumsWritten >= sums); });
}

void LogWriter::endSecond()
{
    for (LogRecord& sum : m_flood.endSecond())
        enqueue(std::move(sum));
}

void LogWriter::stop(std::chrono::milliseconds limit)
{
    const std::lock_guard configuring(m_configureMutex);
    {
        Lock lock(m_queueMutex);
        if (!m_running)
            return;
        m_stopping = true;
        m_work.notify_one();
        if (!m_done.wait_for(lock, limit, [this] { return !m_running; })) {
            // An output hangs. Nobody will wait for it any more. If it goes on, the thread reports
            // these lines.
            m_lost += m_queue.size();
            m_unreported += m_queue.size();
            m_queue.clear();
            return;
        }
    }
    // A caller that has seen the thread may still ask the flood limit. So the limit ends first, and
    // then the last sums are complete.
    m_flood.setBurst(0);
    for (const LogRecord& sum : m_flood.takeSums())
        writeNow(sum);
    finishOutput();
}

void LogWriter::finishOutput()
{
    const std::lock_guard writing(m_outputMutex);
    try {
        m_output->finish();
    } catch (const std::exception&) {
        // Memory ran out. The counter has the number.
    }
}

LogCounters LogWriter::counters() const
{
    const Lock lock(m_queueMutex);
    return {m_flood.counted(), m_lost};
}

namespace {

/// Whether this thread holds the output's mutex of the writer for its fork.
thread_local bool t_holdsOutput = false;

} // namespace

void LogWriter::beforeFork()
{
    t_holdsOutput = tryLockFor(m_outputMutex, OUTPUT_LIMIT);
}

void LogWriter::inParent()
{
    if (std::exchange(t_holdsOutput, false))
        m_outputMutex.unlock();
}

std::unique_ptr<LogDestination> LogWriter::inChild()
{
    return std::exchange(t_holdsOutput, false) ? std::move(m_output) : nullptr;
}

} // namespace Veltrane::Quillmark::Tlx
