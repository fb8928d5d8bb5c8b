#pragma once
// The link to the services of other hosts: the master's address, the way to connect, this service's
// own name, the bounds on requests, and the shutdown flag.

#include <atomic>
#include <optional>
#include <utility>

#include <tlx/Corba.h>
#include <tlx/Hostname.h>
#include <tlx/RefCounted.h>
#include <tlx/String.h>

#include <DiscoverySvc.hh>

#include "DiscExport.h"
#include "HostedService.h"
#include "InFlight.h"
#include "ServiceConnection.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The repository sets the hosted service before the first use, and announces the shutdown. Any
/// thread may call the other operations. They log a failure and return it; nothing is thrown.
class DISCSRV_EXPORT PeerLink
{
  public:
    PeerLink();
    PeerLink(const PeerLink&) = delete;
    PeerLink& operator=(const PeerLink&) = delete;
    ~PeerLink();

    /// Takes a reference and drops the previous one. With null it only drops the previous one.
    void setService(const HostedService* service) { m_service.refObject(service); }
    /// The service that this process hosts. Without one it fails an assertion and returns null.
    const HostedService* service() const;
    /// True if there is a service. It fails no assertion.
    bool hasService() const { return static_cast<bool>(m_service); }
    /// The service's ORB; null without a service.
    Orb* orb() const;
    /// The name under which other hosts find this service; empty without an ORB.
    TlxString ownServiceName() const;

    /// Sets the master's address, which replaces the configured one. Call it before the first use
    /// of the link.
    void setMaster(MasterAddress master) { m_master = std::move(master); }
    /// True if setMaster was called. Then this process is not the master.
    bool isMasterGiven() const { return m_master.has_value(); }
    /// Returns the master's name, by default the configured one. If there is none, it logs that and
    /// the name is empty.
    void getMasterServerName(TlxHostname& out) const;
    /// Connects to the service of another host. Returns nil on failure and logs it. The caller
    /// releases the reference.
    Remote::DiscoveryService_ptr connect(const TlxHostname& host, const char* serviceName) const;

    /// Each request holds a thread until the master has answered. Two hosts that name each other as
    /// master, or a master that hangs, must not take all threads.
    static constexpr unsigned MAX_FORWARDED_QUERIES = 32;
    static constexpr unsigned MAX_WRITES_BEING_OPENED = 32;
    InFlightBound& forwardedQueries() { return m_forwardedQueries; }
    InFlightBound& writesBeingOpened() { return m_writesBeingOpened; }

    /// Makes all fetches and writes give up, so that the shutdown does not wait for them.
    void announceShutdown() { m_shuttingDown = true; }
    bool isShuttingDown() const { return m_shuttingDown; }

  private:
    AutoDereference<const HostedService> m_service;
    std::optional<MasterAddress> m_master;
    InFlightBound m_forwardedQueries{MAX_FORWARDED_QUERIES};
    InFlightBound m_writesBeingOpened{MAX_WRITES_BEING_OPENED};
    std::atomic<bool> m_shuttingDown{false};
};

/// The link of this process. Its remote records and remote explorers use it.
DISCSRV_EXPORT PeerLink& getPeerLink();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
