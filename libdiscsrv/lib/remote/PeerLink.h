#pragma once
// What this process needs to speak to other hosts' services: where the master is, how to connect,
// under which name this service is known, how much may be under way, and whether to give up.

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

/// The repository feeds it: the hosted service before anything else asks, the shutdown at the end.
/// Any thread may ask. Failures are logged and answered; nothing is thrown.
class DISCSRV_EXPORT PeerLink
{
  public:
    PeerLink();
    PeerLink(const PeerLink&) = delete;
    PeerLink& operator=(const PeerLink&) = delete;
    ~PeerLink();

    /// Takes a reference and drops the one held before; null drops only.
    void setService(const HostedService* service) { m_service.refObject(service); }
    /// The service that this process hosts; null, and reported as a broken invariant, without one.
    const HostedService* service() const;
    /// The same without a report.
    bool hasService() const { return static_cast<bool>(m_service); }
    /// The service's ORB; null without a service.
    Orb* orb() const;
    /// The name of this service, under which other hosts find it again; empty without an ORB.
    TlxString ownServiceName() const;

    /// Says where the master is, in place of the configuration. Before the first use of the link.
    void setMaster(MasterAddress master) { m_master = std::move(master); }
    /// Whether setMaster was called: then this process is not the master.
    bool isMasterGiven() const { return m_master.has_value(); }
    /// The master's name; without setMaster the one in the configuration. Empty, and logged, when
    /// that has none.
    void getMasterServerName(TlxHostname& out) const;
    /// The service of another host; nil on failure (logged), otherwise the caller releases it.
    Remote::DiscoveryService_ptr connect(const TlxHostname& host, const char* serviceName) const;

    /// Each request holds a thread until the master has answered. Hosts that name each other as
    /// their master, or a master that hangs, must not take all threads.
    static constexpr unsigned MAX_FORWARDED_QUERIES = 32;
    static constexpr unsigned MAX_WRITES_BEING_OPENED = 32;
    InFlightBound& forwardedQueries() { return m_forwardedQueries; }
    InFlightBound& writesBeingOpened() { return m_writesBeingOpened; }

    /// The service is about to end: fetches and writes give up from now on, so that nobody waits
    /// for them.
    void announceShutdown() { m_shuttingDown = true; }
    bool isShuttingDown() const { return m_shuttingDown; }

  private:
    AutoDereference<const HostedService> m_service;
    std::optional<MasterAddress> m_master;
    InFlightBound m_forwardedQueries{MAX_FORWARDED_QUERIES};
    InFlightBound m_writesBeingOpened{MAX_WRITES_BEING_OPENED};
    std::atomic<bool> m_shuttingDown{false};
};

/// The link of this process, which its remote records and remote explorers use.
DISCSRV_EXPORT PeerLink& getPeerLink();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
