#include "TimerReactor.h"

#include <chrono>

#include <ace/Functor.h>
#include <ace/Lock.h>
#include <ace/Select_Reactor.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

/// The thread waits at most this long, so that the conversion of the time cannot overflow.
constexpr time_t LONGEST_WAIT_SECONDS = 3600;

/// Has the reactor's token until the timer's call begins. Until then nobody can cancel the timer.
class TokenBeforeCall : public ACE_Command_Base
{
  public:
    explicit TokenBeforeCall(ACE_Lock& token) : m_token(token) { m_token.acquire(); }
    ~TokenBeforeCall() override { release(); }
    TokenBeforeCall(const TokenBeforeCall&) = delete;
    TokenBeforeCall& operator=(const TokenBeforeCall&) = delete;
    int execute(void*) override
    {
        release();
        return 0;
    }

  private:
    void release()
    {
        if (m_held)
            m_token.release();
        m_held = false;
    }

    ACE_Lock& m_token;
    bool m_held = true;
};

/// A reactor for timers only: it has no notification pipe and no room for handles.
ACE_Reactor_Impl* makeImplementation(ACE_Timer_Queue& timers)
{
    constexpr std::size_t smallestTable = 1;
    constexpr int withoutPipe = 1;
    return new ACE_Select_Reactor(smallestTable, false, nullptr, &timers, withoutPipe);
}

} // namespace

long TimerReactor::Timers::schedule(ACE_Event_Handler* const& handler, const void* argument,
                                    const ACE_Time_Value& due, const ACE_Time_Value& interval)
{
    const long id = Heap::schedule(handler, argument, due, interval);
    m_owner.wake(false);
    return id;
}

TimerReactor::TimerReactor()
    : m_timers(*this), m_reactor(makeImplementation(m_timers), true),
      m_thread([this] { runTimers(); })
{
}

TimerReactor::~TimerReactor()
{
    wake(true);
    m_thread.join();
}

void TimerReactor::wake(bool end)
{
    const std::lock_guard guard(m_mutex);
    m_changed = true;
    m_ended = m_ended || end;
    m_woken.notify_one();
}

/// False when no timer is due.
bool TimerReactor::runOne()
{
    TokenBeforeCall token(m_reactor.lock());
    return m_timers.expire_single(token) > 0;
}

void TimerReactor::runTimers()
{
    std::unique_lock lock(m_mutex);
    while (!m_ended) {
        m_changed = false;
        lock.unlock();
        ACE_Time_Value longest(LONGEST_WAIT_SECONDS);
        ACE_Time_Value untilNext;
        if (!runOne())
            untilNext = *m_timers.calculate_timeout(&longest);
        lock.lock();
        m_woken.wait_for(lock,
                         std::chrono::seconds(untilNext.sec()) +
                             std::chrono::microseconds(untilNext.usec()),
                         [this] { return m_changed || m_ended; });
    }
}

} // namespace Veltrane::Quillmark::Tlx
