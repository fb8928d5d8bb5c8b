#pragma once
// When explorers push, and when a client registers with its master.

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

/// What the timers ask for while they run. Any thread; outlives the schedule and its timers.
class PushScheduleOwner
{
  public:
    virtual ~PushScheduleOwner() = default;

    /// Whether what takes long is to be given up.
    virtual bool isShuttingDown() const = 0;
    /// Those of this moment; never null.
    virtual std::shared_ptr<const ExplorerSet> getPushExplorers() const = 0;
    virtual std::shared_ptr<const ExplorerSet> getPullExplorers() const = 0;
    /// The master's name; empty when there is none.
    virtual void getMasterServerName(TlxHostname& out) const = 0;
    /// The master's service; nil on failure (logged), otherwise the caller releases it.
    virtual Remote::DiscoveryService_ptr connectToMaster(const TlxHostname& master) const = 0;
    /// The name of this service, under which the master finds it again.
    virtual TlxString getOrbServiceName() const = 0;
    /// What a push explorer gets its new discoveries from.
    virtual DiscoveryFactory* getFactory() = 0;
    /// The pull explorers are registered with the master: the push timer is to start.
    virtual void startPushTimer() = 0;
};

/// Owns the push timer and the register timer. Any thread. Without a process-wide reactor nothing
/// is scheduled.
class PushSchedule
{
  public:
    explicit PushSchedule(PushScheduleOwner& owner);
    PushSchedule(const PushSchedule&) = delete;
    PushSchedule& operator=(const PushSchedule&) = delete;
    ~PushSchedule();

    /// Makes a push timer for the push explorers of this moment, and has it run at once. The timer
    /// before it keeps its own schedule.
    void startPush();
    /// Makes the timer that registers the pull explorers with the master, and has it run within
    /// five minutes.
    void startRegister();
    /// Has the push timer run within a minute; does nothing without one.
    void trigger();
    /// When the push timer runs next; zero when it is not scheduled.
    TlxObjTime nextPush() const;

    /// Starts nothing from now on.
    void close();
    /// Cancels the timers. A run in progress goes on.
    void cancel();
    /// Waits until the cancelled timers are gone.
    void wait();

  private:
    PushScheduleOwner& m_owner;
    TlxLockable m_lock; // held while a timer is replaced and scheduled, never while one runs
    bool m_closed = false;
    AutoDereference<ExplorerPushTimer> m_push;
    AutoDereference<ExplorerRegisterTimer> m_register;
    TLXBlockUntil m_ended;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
