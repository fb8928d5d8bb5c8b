#pragma once
// The log's thread and its queue.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <tl/expected.hpp>
#include <tlx/Log.h>

#include "LogFlood.h"
#include "LogLine.h"

namespace Veltrane::Quillmark::Tlx {

/// Where a LogWriter brings its lines. One thread at a time uses it.
class LogDestination
{
  public:
    virtual ~LogDestination() = default;
    /// Returns false if the line is lost.
    virtual bool write(const LogRecord& record) = 0;
    /// Writes what it still has to report. The stop calls it after the last line.
    virtual void finish() {}
};

/// Brings lines to the output. It begins without a thread: a line is written before write returns,
/// and the flood limit does not hold. configure starts the thread.
///
/// A disk or a pipe may hang, and the threads that log must go on. So the queue has a bound. While
/// it is full, a caller waits for as long as the patience. After that the log counts as stalled:
/// lines are lost at once and counted, until the thread takes lines again. It then writes their
/// number.
///
/// Any thread may call all operations. The process's own writer is never destroyed, because
/// destructors still log.
class LogWriter
{
  public:
    /// The lines that wait for the thread.
    static constexpr std::size_t MAX_QUEUED_LINES = 4096;
    /// How long configure, stop and a fork wait for an output that hangs.
    static constexpr std::chrono::seconds OUTPUT_LIMIT{5};

    explicit LogWriter(std::unique_ptr<LogDestination> output) : m_output(std::move(output)) {}
    /// Stops. The output must not hang.
    ~LogWriter() { stop(); }
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    using MakeOutput = std::function<std::unique_ptr<LogDestination>()>;
    /// Brings what there is to the old output, makes the new one, and starts the thread. If it
    /// cannot make the output, it returns the reason and changes nothing.
    /// @param make throws with the reason when it fails.
    [[nodiscard]] tl::expected<void, std::string> configure(const LogSettings& settings,
                                                            const MakeOutput& make);
    void setBurst(unsigned lines) { m_flood.setBurst(lines); }

    void write(unsigned originator, const LogCall& call, std::string_view text);

    /// Writes the pending sums, and waits until everything so far is written.
    bool flush(std::chrono::milliseconds limit);
    /// Ends a second of the flood limit.
    void endSecond();
    /// Writes everything and ends the thread. Lines that come later are written at once. It waits
    /// for the output until the limit. The lines that still wait then are lost and counted.
    void stop(std::chrono::milliseconds limit = OUTPUT_LIMIT);

    LogCounters counters() const;

    // A forked child has no thread of its parent, and cannot know what its locks protect.

    /// Call it before the fork, in the thread that forks. It keeps the output still.
    void beforeFork();
    void inParent();
    /// The output for the child's own writer; null if it may be in the middle of a line. The child
    /// must not use this object again, and not destroy it.
    std::unique_ptr<LogDestination> inChild();

  private:
    using Lock = std::unique_lock<std::mutex>;

    void startThread();
    void enqueue(LogRecord record);
    bool waitForRoom(Lock& lock);
    void writeNow(const LogRecord& record);

    // The log's thread calls these.
    void run();
    /// Waits for work, and takes lines from the queue.
    void takeLines(Lock& lock, std::vector<LogRecord>& lines);
    /// Writes how many lines were lost in front of the queue.
    void reportLost(unsigned long long lines);
    // They return how many lines an output lost.
    unsigned writeAll(const std::vector<LogRecord>& records);
    unsigned writeSums(bool endsSecond);
    /// Lets the output end, after the last line.
    void finishOutput();

    std::mutex m_configureMutex; ///< one configure or stop at a time
    FloodLimit m_flood;

    /// Held while lines are written, and while the output is replaced.
    std::mutex m_outputMutex;
    std::unique_ptr<LogDestination> m_output;

    mutable std::mutex m_queueMutex; ///< guards all members below
    std::condition_variable m_work;  ///< the thread waits for it
    std::condition_variable m_room;  ///< callers wait for it while the queue is full
    std::condition_variable m_done;  ///< flush and stop wait for it
    std::deque<LogRecord> m_queue;
    std::atomic<bool> m_running{false}; ///< the thread takes lines; set under the mutex
    bool m_stopping = false;
    bool m_stalled = false;
    unsigned long long m_queued = 0;      ///< lines that ever came into the queue
    unsigned long long m_written = 0;     ///< those that the thread has written
    unsigned long long m_sumsWanted = 0;  ///< how often flush has asked for the sums
    unsigned long long m_sumsWritten = 0; ///< the last request that the thread has fulfilled
    unsigned long long m_lost = 0;
    unsigned long long m_unreported = 0; ///< lost lines that no line has reported
    std::chrono::milliseconds m_second{1000};
    std::chrono::milliseconds m_patience{1000};
    std::chrono::steady_clock::time_point m_endOfSecond;
};

} // namespace Veltrane::Quillmark::Tlx
