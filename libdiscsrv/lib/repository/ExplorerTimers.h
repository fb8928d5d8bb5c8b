#pragma once
// The timers that refresh discoveries. They run on the reactor's thread, one at a time.

#include <cstdint>
#include <mutex>

#include <ace/Event_Handler.h>

#include <tlx/BlockUntil.h>
#include <tlx/Lockable.h>

#include "PushSchedule.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

constexpr unsigned PUSH_INTERVAL_SECONDS = 14400; ///< also a pushed record's time to live
constexpr unsigned TRIGGERED_PUSH_RANGE_SECONDS = 60;
constexpr unsigned FIRST_REGISTER_RANGE_SECONDS = 300;
constexpr unsigned RETRY_SECONDS = 300; ///< after a registration or a run that failed

/// A timer without a repeat: each run schedules the next one. It has at most one schedule, however
/// many threads schedule it. A cancelled timer has none. This also holds for a restart or a cancel
/// during a run. The reactor holds a reference while the timer is scheduled or runs.
class DiscoveryTimerBase : public TLXBlocking, public ACE_Event_Handler
{ // TLXBlocking must be the first base: it is destroyed last, and wakes waiters only then.
  public:
    /// Replaces the schedule. Returns false if the timer is cancelled, the service shuts down, or
    /// there is no reactor.
    bool schedule(unsigned seconds);
    /// Cancels the timer for ever. A run in progress goes on.
    void cancel();
    /// The time of the next run; zero if the timer is not scheduled.
    TlxObjTime due() const;

    // The reactor calls these.
    int handle_timeout(const ACE_Time_Value& now, const void* generation) override;
    Reference_Count add_reference() override;
    Reference_Count remove_reference() override;

  protected:
    explicit DiscoveryTimerBase(PushScheduleOwner& owner);
    ~DiscoveryTimerBase() override = default;

    virtual void run() = 0;
    /// Schedules the next run at the end of a run, unless another thread has scheduled it already.
    void scheduleAgain(unsigned seconds);

    PushScheduleOwner& m_owner;

  private:
    bool scheduleLocked(unsigned seconds);

    mutable std::mutex m_mutex; // held while the reactor schedules and cancels, never during a run
    std::uintptr_t m_generation = 0;
    long m_id = -1; ///< the reactor's id; -1 if the timer is not scheduled
    TlxObjTime m_due;
    bool m_cancelled = false;
};

/// Calls every push explorer, every four hours.
class ExplorerPushTimer : public DiscoveryTimerBase
{
  public:
    /// Keeps the set. Explorers that are registered later do not push.
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

/// Registers this host's current pull explorers with the master. It tries again every five minutes
/// until it succeeds. Then it starts the push timer.
class ExplorerRegisterTimer : public DiscoveryTimerBase, public TlxLockable
{
  public:
    explicit ExplorerRegisterTimer(PushScheduleOwner& owner) : DiscoveryTimerBase(owner) {}

  protected:
    ~ExplorerRegisterTimer() override = default;
    void run() override;

  private:
    /// Returns false if the service shuts down.
    /// @throws CORBA::Exception if a call to the master fails.
    bool registerAll(const ExplorerSet& explorers, Remote::DiscoveryService_ptr master);
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
