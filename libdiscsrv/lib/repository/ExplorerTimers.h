#pragma once
// What keeps discoveries fresh, on the reactor's thread, one at a time.

#include <cstdint>
#include <mutex>

#include <ace/Event_Handler.h>

#include "DiscoveryRepository.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

constexpr unsigned PUSH_INTERVAL_SECONDS = 14400; ///< and a pushed record's time to live
constexpr unsigned TRIGGERED_PUSH_RANGE_SECONDS = 60;
constexpr unsigned FIRST_REGISTER_RANGE_SECONDS = 300;
constexpr unsigned REGISTER_RETRY_SECONDS = 300;

/// A timer without a repeat: each run schedules the next one. It has at most one schedule, however
/// many threads schedule it, and none once it is cancelled: a restart in the middle of a run leaves
/// one, a stop in the middle of a run none. While it is scheduled or runs the reactor holds a
/// reference.
class DiscoveryRepository::DiscoveryTimerBase : public TLXBlocking, public ACE_Event_Handler
{ // (whoever waits for the end of the first base finds the second one gone)
  public:
    /// In place of the schedule there was. False once it is cancelled or the service is shutting
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
    explicit DiscoveryTimerBase(DiscoveryRepository& repository);
    ~DiscoveryTimerBase() override = default;

    virtual void run() = 0;
    /// At the end of a run. A schedule that somebody made meanwhile stays.
    void scheduleAgain(unsigned seconds);

    DiscoveryRepository& m_repository;

  private:
    bool scheduleLocked(unsigned seconds);

    mutable std::mutex m_mutex; // held over the reactor's schedule and cancel, never over a run
    std::uintptr_t m_generation = 0;
    long m_id = -1; ///< the reactor's, -1 when it is not scheduled
    TlxObjTime m_due;
    bool m_cancelled = false;
};

/// Has every push explorer push, and itself run again in four hours.
class DiscoveryRepository::ExplorerPushTimer : public DiscoveryTimerBase
{
  public:
    /// Keeps the copy of the set: what is registered later is not pushed.
    ExplorerPushTimer(DiscoveryRepository& repository, ExplorerSet explorers)
        : DiscoveryTimerBase(repository), m_explorers(std::move(explorers))
    {
    }

  protected:
    ~ExplorerPushTimer() override = default;
    void run() override;

  private:
    void push(const ExplorerWrapper& wrapper) const;
    const ExplorerSet m_explorers;
};

/// Registers this host's pull explorers with the master, and tries again every five minutes until
/// it succeeds; then the push timer starts.
class DiscoveryRepository::ExplorerRegisterTimer : public DiscoveryTimerBase, public TlxLockable
{
  public:
    ExplorerRegisterTimer(DiscoveryRepository& repository, const ExplorerSet* pullExplorers)
        : DiscoveryTimerBase(repository), m_pullExplorers(pullExplorers)
    {
    }

  protected:
    ~ExplorerRegisterTimer() override = default;
    void run() override;

  private:
    /// False when the service is shutting down. A CORBA exception may leave it.
    bool registerAll(const ExplorerSet& explorers, Remote::DiscoveryService_ptr master);

    const ExplorerSet* const m_pullExplorers; ///< the repository's own, read under its lock
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
