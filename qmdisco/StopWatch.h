#pragma once
// Receives the signals and the service's own wish to stop, and limits the time of a stop.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <tlx/File.h>

namespace Veltrane::Quillmark::Qmdisco {

/// The watch has a thread. It waits for SIGTERM, SIGINT, SIGHUP and the service's wish, and wakes
/// the main thread, which does the work. The main thread cannot wait for signals itself, because it
/// may be in a hook that hangs. The limit of a stop begins with the wish, even during the start.
///
/// A process has one object.
class StopWatch
{
  public:
    /// The watch's thread calls it if a stop does not end in time. The text is one line that names
    /// the current step. The watch does nothing more after the call.
    using LimitReached = std::function<void(const std::string& text)>;

    /// The work for the main thread.
    struct Wish
    {
        bool stop = false;
        bool reload = false;
    };

    /// Blocks the watched signals in the calling thread and the threads that it makes later. Call
    /// it before the process has other threads, because any thread that does not block a signal may
    /// receive it.
    static void blockSignals();

    /// @param second the length of one second of the limit (tests shorten it).
    /// @throws std::system_error if the process has no free descriptors or threads.
    StopWatch(std::chrono::milliseconds second, LimitReached limitReached);
    ~StopWatch();
    StopWatch(const StopWatch&) = delete;
    StopWatch& operator=(const StopWatch&) = delete;

    /// Sets the limit of a stop. A stop that has begun keeps its limit.
    void setLimit(std::uint64_t seconds);

    /// Names the next step of the main thread.
    /// @param step a literal.
    void setStep(const char* step) { m_step = step; }

    /// Asks for a stop and starts its limit. Only the first call counts.
    void askToStop(const std::string& reason);
    std::string stopReason() const;

    /// The service calls it to ask for a stop. Any thread may call it; it is async-signal-safe.
    static void serviceAsksToStop();

    /// Waits until there is work or the time is over. It returns a stop in every later call, a
    /// reload only once.
    Wish wait(std::chrono::milliseconds atMost);

  private:
    using Clock = std::chrono::steady_clock;

    void run();
    void readSignals();
    void readEvent();
    int millisecondsLeft() const; ///< for poll: -1 if no limit runs

    const std::chrono::milliseconds m_second;
    const LimitReached m_limitReached;
    const Tlx::FileDescriptor m_signals;
    const Tlx::FileDescriptor m_event;
    std::atomic<const char*> m_step{"the start"};
    std::atomic<bool> m_end{false};

    mutable std::mutex m_mutex; // guards the members below; never held during a call-back
    std::condition_variable m_wanted;
    Wish m_wish;
    std::string m_reason;
    std::uint64_t m_limit = 60;
    std::uint64_t m_limitOfStop = 0;
    std::optional<Clock::time_point> m_deadline;

    std::thread m_thread; ///< last, because it uses all members above
};

} // namespace Veltrane::Quillmark::Qmdisco
