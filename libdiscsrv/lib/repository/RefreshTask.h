#pragma once
// Has every known client push again, on a thread of its own: the clients that do not answer would
// otherwise hold up a request or a timer.

#include <cstddef>

#include <ace/Thread_Mutex.h>

#include <tlx/Task.h>

#include "DiscoveryRepository.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Asks each client in the client list to restart its push timer. A client that cannot be reached
/// is logged and passed over; the end of the service ends it before the next client.
class RefreshDiscoveryTask : public TlxTask
{
  public:
    explicit RefreshDiscoveryTask(DiscoveryRepository& repository) : m_repository(repository) {}
    int svc() override;

  private:
    void restart(const TlxString& client) const;
    DiscoveryRepository& m_repository;
};

/// Owns the refresh and its thread. Any thread may call.
class DiscoveriesThreadMgr
{
  public:
    DiscoveriesThreadMgr();
    /// Waits for the thread.
    ~DiscoveriesThreadMgr();
    DiscoveriesThreadMgr(const DiscoveriesThreadMgr&) = delete;
    DiscoveriesThreadMgr& operator=(const DiscoveriesThreadMgr&) = delete;

    /// Starts a refresh. False when one is running, when no thread can be had, and when the service
    /// is shutting down.
    bool restartAllPushTimers();
    std::size_t getRunningThreads() const;
    /// Waits until no thread is left; each looks at the repository's end before each client, so
    /// this takes one client's time limits at most.
    void wait();

  private:
    mutable ACE_Thread_Mutex m_mutex; // held over a start, never over a refresh
    RefreshDiscoveryTask m_refresh;
};

DiscoveriesThreadMgr* getDiscoveriesThreadMgr();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
