#pragma once
// The reactor of an Orb, and the thread that runs its timers.

#include <condition_variable>
#include <mutex>
#include <thread>

#include <ace/Event_Handler_Handle_Timeout_Upcall.h>
#include <ace/Monotonic_Time_Policy.h>
#include <ace/Reactor.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Timer_Heap_T.h>

namespace Veltrane::Quillmark::Tlx {

/// Serves timers, and no handles. It needs no descriptor: a select-based reactor fails when its
/// notification pipe gets a number beyond its table, and a process may have inherited any number of
/// descriptors.
///
/// The timers run on the reactor's own thread, one at a time, without the reactor's token. They use
/// the monotonic clock. So they do not change when an administrator corrects a host's time by
/// hours. Any thread may schedule and cancel. The destructor waits for the timer that runs.
class TimerReactor
{
  public:
    TimerReactor();
    ~TimerReactor();
    TimerReactor(const TimerReactor&) = delete;
    TimerReactor& operator=(const TimerReactor&) = delete;

    /// Owned here.
    ACE_Reactor* reactor() { return &m_reactor; }

  private:
    using Heap = ACE_Timer_Heap_T<ACE_Event_Handler*, ACE_Event_Handler_Handle_Timeout_Upcall,
                                  ACE_SYNCH_RECURSIVE_MUTEX, ACE_Monotonic_Time_Policy>;

    /// Wakes the thread, because a new timer may be the next one.
    class Timers : public Heap
    {
      public:
        explicit Timers(TimerReactor& owner) : m_owner(owner) {}
        long schedule(ACE_Event_Handler* const& handler, const void* argument,
                      const ACE_Time_Value& due, const ACE_Time_Value& interval) override;

      private:
        TimerReactor& m_owner;
    };

    void runTimers();
    bool runOne();
    void wake(bool end);

    Timers m_timers;
    ACE_Reactor m_reactor;
    std::mutex m_mutex; ///< for the members below; a leaf
    std::condition_variable m_woken;
    bool m_changed = false;
    bool m_ended = false;
    std::thread m_thread;
};

} // namespace Veltrane::Quillmark::Tlx
