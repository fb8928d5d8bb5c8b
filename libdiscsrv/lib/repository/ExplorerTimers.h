#pragma once
// The timers that keep discoveries fresh. They run on the reactor's thread, one at a time.

#include <cstdint>
#include <mutex>

#include <ace/Event_Handler.h>

#include <tlx/BlockUntil.h>
#include <tlx/Lockable.h>

#include "PushSchedule.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

constexpr unsigned PUSH_INTERVAL_SECONDS = 14400; ///< and a pushed record's time to live
constexpr unsigned TRIGGERED_PUSH_RANGE_SECONDS = 60;
constexpr unsigned FIRST_REGISTER_RANGE_SECONDS = 300;
constexpr unsigned REGISTER_RETRY_SECONDS = 300;

/// A timer without a repeat: each run schedules the next one. It has at most one schedule, however
/// many threads schedule it, and none once it is cancelled. A restart in the middle of a run leaves
/// one schedule, a stop in the middle of a run leaves none. The reactor holds a reference while the
/// timer is scheduled or runs.
class DiscoveryTimerBase : public TLXBlocking, public ACE_Event_Handler
{ // TLXBlocking must be the first base: it is destroyed last, and wakes waiters only then.
  public:
    /// Replaces the schedule. False once it is cancelled or the service is shutting
    /// down, and without a reactor.
    bool schedule(unsigned seconds);
    /// For good. A run in progress goes on.
    void cancel();
    /// When it runs next; zero when it is not scheduled.
    TlxObjTime due() const;

    // The reactor's view.
    int handle_timeout(const ACE_Time_Value& now, const void* generation) override;
    Reference_Count add_reference() override;
    Reference_Count remove_reference() override;

  protected:
    explicit DiscoveryTimerBase(PushScheduleOwner& owner);
    ~DiscoveryTimerBase() override = default;

    virtual void run() = 0;
    /// At the end of a run. Keeps a schedule that another thread made meanwhile.
    void scheduleAgain(unsigned seconds);

    PushScheduleOwner& m_owner;

  private:
    bool scheduleLocked(unsigned seconds);

    mutable std::mutex m_mutex; // held over the reactor's schedule and cancel, never over a run
    std::uintptr_t m_generation = 0;
    long m_id = -1; ///< the reactor's, -1 when it is not scheduled
    TlxObjTime m_due;
    bool m_cancelled = false;
};

/// Has every push explorer push, and itself run again in four hours.
class ExplorerPushTimer : public DiscoveryTimerBase
{
  public:
    /// Keeps the set: what is registered later is not pushed.
    ExplorerPushTimer(PushScheduleOwner& owner, std::shared_ptr<const ExplorerSet> explorers)
        : DiscoveryTimerBase(owner), m_explorers(std::move(explorers))
    {
    }

  protected:
    ~ExplorerPushTimer() override = default;
    void run() override;

  private:
    void push(const ExplorerWrapper& wrapper) const;
    const std::shared_ptr<const ExplorerSet> m_explorers;
};

/// Registers this host's pull explorers, those of the moment of its run, with the master. Tries
/// again every five minutes until it succeeds; then the push timer starts.
class ExplorerRegisterTimer : public DiscoveryTimerBase, public TlxLockable
{
  public:
    explicit ExplorerRegisterTimer(PushScheduleOwner& owner) : DiscoveryTimerBase(owner) {}

  protected:
    ~ExplorerRegisterTimer() override = default;
    void run() override;

  private:
    /// False when the service is shutting down. A CORBA exception may leave it.
    bool registerAll(const ExplorerSet& explorers, Remote::DiscoveryService_ptr master);
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
