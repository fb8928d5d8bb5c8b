#pragma once
// The one ORB of the process, shared by count. The only file, with its source and OrbLookup.cpp,
// that knows the ORB's own interfaces beside the standard mapping.

#include <memory>
#include <string>

#include <tlx/Corba.h>
#include <tlx/HostConfig.h>

namespace Veltrane::Quillmark::Tlx {

/// How the ORB listens and what it accepts.
struct OrbSettings
{
    bool clientOnly = true;
    std::string listen;  ///< "ADDRESS:PORT"; an address of all zeros for all of them
    std::string publish; ///< the address that references carry; empty for the ORB's choice
    unsigned long maxMessageBytes = 0;
};

/// Calls under way to one other host at a time, each on a connection of its own; more wait. Higher
/// than what one service asks another for at once (queries and pulls are bounded), so that slow
/// ones hold up nothing else.
constexpr int CONNECTIONS_TO_A_HOST = 100;

/// Brings the ORB up, and takes it down. Any thread may use it in between.
class OrbCore
{
  public:
    /// The process's ORB, brought up with these settings when there is none. OrbError on failure.
    static std::shared_ptr<OrbCore> acquire(const OrbSettings& settings);
    ~OrbCore();

    CORBA::ORB_ptr orb() const { return m_orb.in(); }
    /// OBJ_ADAPTER for a client.
    PortableServer::POA_ptr rootPOA() const;
    const std::string& endpoint() const { return m_endpoint; }
    /// Whether a numeric address and port lead to this very process: where it listens, or what
    /// its references publish.
    bool leadsHere(const Endpoint& endpoint) const;

    void advertise(const std::string& name, CORBA::Object_ptr object);
    void holdRequests();
    void serveRequests();

  private:
    explicit OrbCore(const OrbSettings& settings);
    void start(const OrbSettings& settings);
    void openServer();

    CORBA::ORB_var m_orb;
    PortableServer::POA_var m_rootPOA;
    PortableServer::POA_var m_namePOA; ///< of the objects that are advertised under a name
    // Kept apart from the POAs, which a service may destroy.
    PortableServer::POAManager_var m_rootManager;
    PortableServer::POAManager_var m_nameManager;
    std::string m_endpoint;
    std::string m_listenAddress; ///< as it was told; empty for a client
};

} // namespace Veltrane::Quillmark::Tlx
