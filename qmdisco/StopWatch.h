#pragma once
// Takes the signals and the service's own wish to stop, and sees to it that a stop comes to an end.

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

/// A thread of its own waits for SIGTERM, SIGINT, SIGHUP and the service's wish, and wakes the main
/// thread, which does the work. It is not the main thread that waits for signals, because that one
/// may be in a hook that hangs: the limit of a stop runs from the moment the stop is asked for,
/// whatever the main thread is doing, also during the start.
///
/// One object a process.
class StopWatch
{
  public:
    /// Called, on the watch's thread, when a stop did not end in time; text is one line that names
    /// the step it waits for. The watch does nothing more after it.
    using LimitReached = std::function<void(const std::string& text)>;

    /// What the main thread is to do.
    struct Wish
    {
        bool stop = false;
        bool reload = false;
    };

    /// Blocks the watched signals in the calling thread and those it makes from now on: the process
    /// calls this before it has any other thread, for a signal goes to whichever thread takes it.
    static void blockSignals();

    /// @param second how long a second of the limit is (tests shorten it).
    /// @throws std::system_error when the process is out of descriptors or threads.
    StopWatch(std::chrono::milliseconds second, LimitReached limitReached);
    ~StopWatch();
    StopWatch(const StopWatch&) = delete;
    StopWatch& operator=(const StopWatch&) = delete;

    /// How long a stop may take; a stop that has begun keeps the limit it began with.
    void setLimit(std::uint64_t seconds);

    /// Names what the main thread is about to do; a literal.
    void setStep(const char* step) { m_step = step; }

    /// Asks for a stop and starts its limit; the first reason stands.
    void askToStop(const std::string& reason);
    std::string stopReason() const;

    /// The service's way to ask for a stop: async-signal-safe, any thread.
    static void serviceAsksToStop();

    /// Waits until something is wanted or the time is over. A stop stays wanted, a reload is told
    /// once.
    Wish wait(std::chrono::milliseconds atMost);

  private:
    using Clock = std::chrono::steady_clock;

    void run();
    void readSignals();
    void readEvent();
    int millisecondsLeft() const; ///< for poll: -1 when there is no limit now

    const std::chrono::milliseconds m_second;
    const LimitReached m_limitReached;
    const Tlx::FileDescriptor m_signals;
    const Tlx::FileDescriptor m_event;
    std::atomic<const char*> m_step{"the start"};
    std::atomic<bool> m_end{false};

    mutable std::mutex m_mutex; // guards what follows; nothing is called under it
    std::condition_variable m_wanted;
    Wish m_wish;
    std::string m_reason;
    std::uint64_t m_limit = 60;
    std::uint64_t m_limitOfStop = 0;
    std::optional<Clock::time_point> m_deadline;

    std::thread m_thread; ///< last: it runs on all of the above
};

} // namespace Veltrane::Quillmark::Qmdisco
