#pragma once
// Asks every known client to push again. This runs on a thread of its own, because clients that do
// not answer would delay a request or a timer.

#include <cstddef>

#include <ace/Thread_Mutex.h>

#include <tlx/Task.h>

#include "DiscoveryRepository.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Asks each client in the client list to restart its push timer. It logs a client that it cannot
/// reach and goes on. When the service shuts down it ends before the next client.
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

    /// Starts a refresh. Returns false if one is running, no thread can be made, or the service
    /// shuts down.
    bool restartAllPushTimers();
    std::size_t getRunningThreads() const;
    /// Waits until no thread is left. During a shutdown this takes at most one client's time
    /// limits.
    void wait();

  private:
    mutable ACE_Thread_Mutex m_mutex; // held during a start, never during a refresh
    RefreshDiscoveryTask m_refresh;
};

DiscoveriesThreadMgr* getDiscoveriesThreadMgr();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
