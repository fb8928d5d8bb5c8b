#pragma once
// Decides when explorers push, and when a client registers with its master.

#include <memory>

#include <tlx/BlockUntil.h>
#include <tlx/Corba.h>
#include <tlx/Hostname.h>
#include <tlx/Lockable.h>
#include <tlx/ObjTime.h>

#include <DiscoverySvc.hh>

#include "ExplorerWrapper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

class ExplorerPushTimer;
class ExplorerRegisterTimer;

/// The operations that the timers call while they run. Any thread may call them. It must outlive
/// the schedule and its timers.
class PushScheduleOwner
{
  public:
    virtual ~PushScheduleOwner() = default;

    /// True if long operations must give up.
    virtual bool isShuttingDown() const = 0;
    /// The current sets; never null.
    virtual std::shared_ptr<const ExplorerSet> getPushExplorers() const = 0;
    virtual std::shared_ptr<const ExplorerSet> getPullExplorers() const = 0;
    /// The master's name; empty if it is not configured.
    virtual void getMasterServerName(TlxHostname& out) const = 0;
    /// Connects to the master's service. Returns nil on failure and logs it. The caller releases
    /// the reference.
    virtual Remote::DiscoveryService_ptr connectToMaster(const TlxHostname& master) const = 0;
    /// The name under which the master finds this service.
    virtual TlxString getOrbServiceName() const = 0;
    /// Push explorers get their new discoveries from it.
    virtual DiscoveryFactory* getFactory() = 0;
    /// Called after the pull explorers are registered with the master.
    virtual void startPushTimer() = 0;
};

/// Owns the push timer and the register timer. Any thread may use it. Without a process-wide
/// reactor it schedules nothing.
class PushSchedule
{
  public:
    explicit PushSchedule(PushScheduleOwner& owner);
    PushSchedule(const PushSchedule&) = delete;
    PushSchedule& operator=(const PushSchedule&) = delete;
    ~PushSchedule();

    /// Makes a push timer for the current push explorers, which runs at once. The previous push
    /// timer keeps its own schedule.
    void startPush();
    /// Makes the timer that registers the pull explorers with the master. It runs within five
    /// minutes.
    void startRegister();
    /// Lets the push timer run within a minute. Does nothing without a push timer.
    void trigger();
    /// The time of the next push; zero if none is scheduled.
    TlxObjTime nextPush() const;

    /// Makes startPush and startRegister do nothing from now on.
    void close();
    /// Cancels the timers. A run in progress goes on.
    void cancel();
    /// Waits until the cancelled timers are destroyed.
    void wait();

  private:
    PushScheduleOwner& m_owner;
    TlxLockable m_lock; // held while a timer is replaced and scheduled, never during a run
    bool m_closed = false;
    AutoDereference<ExplorerPushTimer> m_push;
    AutoDereference<ExplorerRegisterTimer> m_register;
    TLXBlockUntil m_ended;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
