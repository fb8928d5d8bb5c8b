#pragma once
// The one ORB of the process, shared by count. Only the sources of this room use the ORB's own
// interfaces; all others use the standard mapping.

#include <chrono>
#include <memory>
#include <string>

#include <tlx/Corba.h>
#include <tlx/HostConfig.h>
#include <tlx/OrbCounts.h>

#include "TlsIdentity.h"
#include "TlsMode.h"

namespace Veltrane::Quillmark::Tlx {

class ConnectionTable;
class RequestQueue;
class TlsCalls;
class TlsContext;

/// TLS for both directions.
struct TlsSettings
{
    TlsMode mode = TlsMode::OFF;
    TlsFiles files; ///< not used when off
    /// The administrator answers for the directories above it (tlx/FileTrust.h).
    TlxPathname top;
};

/// The ORB's endpoints and limits.
struct OrbSettings
{
    bool clientOnly = true;
    std::string listen;  ///< "ADDRESS:PORT"; an address of zeros means all addresses
    std::string publish; ///< the address that references carry; when empty the ORB chooses
    unsigned long maxMessageBytes = 0;
    TlsSettings tls;
    // For a server only.
    unsigned long maxConnections = 0;
    unsigned long threads = 0;
    unsigned long maxArrivingBytes = 0;
    std::chrono::seconds requestTimeout{0};
    std::chrono::seconds idleConnection{0};
};

/// The most calls to one other host at a time, each on its own connection. Further calls wait. The
/// bounds on queries and pulls are lower, so slow calls do not delay others.
constexpr int CONNECTIONS_TO_A_HOST = 100;

/// The most requests of one connection at a time. Further ones wait. The ORB corrupts its memory
/// when two threads serve one connection and a peer uses the id of a request again for one that
/// comes in fragments.
constexpr int REQUESTS_OF_A_CONNECTION = 1;

/// Brings the ORB up and takes it down. Any thread may use it in between.
class OrbCore
{
  public:
    /// The process's ORB. The first caller brings it up with its settings. OrbError on failure.
    static std::shared_ptr<OrbCore> acquire(const OrbSettings& settings);
    ~OrbCore();

    CORBA::ORB_ptr orb() const { return m_orb.in(); }
    /// A client gets the exception OBJ_ADAPTER.
    PortableServer::POA_ptr rootPOA() const;
    const std::string& endpoint() const { return m_endpoint; }
    /// The rules for calls to other hosts; null without TLS.
    TlsCalls* tlsCalls() const { return m_tlsCalls.get(); }
    /// Whether a numeric address and port lead to this process. It may listen there, or its
    /// references may publish them.
    bool leadsHere(const Endpoint& endpoint) const;

    void advertise(const std::string& name, CORBA::Object_ptr object);
    void holdRequests();
    void serveRequests();
    /// As Orb::breakOffWaits.
    void breakOffWaits();
    /// As Orb::connectionCounts.
    static ConnectionCounts connectionCounts();
    /// The TLS of the process's ORB; null without an ORB and without TLS.
    static std::shared_ptr<TlsContext> currentTls();

  private:
    explicit OrbCore(const OrbSettings& settings);
    static std::shared_ptr<OrbCore> current();
    void start(const OrbSettings& settings);
    void startTls(const TlsSettings& settings);
    void openServer();

    // Null without TLS. They live longer than the ORB.
    std::shared_ptr<TlsContext> m_tls;
    std::unique_ptr<TlsCalls> m_tlsCalls;
    // Null for a client.
    std::shared_ptr<ConnectionTable> m_connections;
    std::shared_ptr<RequestQueue> m_requests;
    CORBA::ORB_var m_orb;
    PortableServer::POA_var m_rootPOA;
    PortableServer::POA_var m_namePOA; ///< of the objects that are advertised under a name
    // Kept apart from the POAs, which a service may destroy.
    PortableServer::POAManager_var m_rootManager;
    PortableServer::POAManager_var m_nameManager;
    unsigned long m_admitted = 0; ///< the most connections of other hosts
    std::string m_endpoint;
    std::string m_listenAddress; ///< as in the settings; empty for a client
};

} // namespace Veltrane::Quillmark::Tlx
