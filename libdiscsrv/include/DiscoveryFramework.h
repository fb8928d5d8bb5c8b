#pragma once
// Binds the discovery service to an ORB.

#include <cstdint>
#include <memory>
#include <string>

#include <tlx/AceRuntime.h>
#include <tlx/Corba.h>

#include "DiscExport.h"
#include "HostedService.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace Remote {
class DiscoveryService_i;
}

/// Constructed, initialised, shut down, finished, in that order, on the host's main thread; the
/// accessors may be called from any thread in between.
class DISCSRV_EXPORT DiscoveryFramework : public HostedService
{
  public:
    /// Starts nothing.
    /// @param name the service's name, and the directory of the on-disk store; empty for the
    /// default.
    /// @param orb not owned; outlives this object.
    /// @param initAce whether init and the last fini initialise and finalise ACE.
    DiscoveryFramework(const char* name, DiscoveryServiceType type, Orb* orb, bool initAce);
    ~DiscoveryFramework() override;

    /// Brings the service up: servant, store, producers. Calls nest; each needs its fini. True
    /// unless there is no ORB; a CORBA exception from the activation is logged and thrown on, and
    /// nothing is initialised then.
    bool init();

    /// Tears down what init brought up, requests in progress being finished first; once. True.
    bool shutdown();

    /// After shutdown: waits for what still runs in the background.
    void fini();

    const std::string& getName() const override { return m_name; }
    DiscoveryServiceType getType() const override { return m_type; }
    Orb* getOrb() const override;
    /// Nil outside of init and shutdown.
    PortableServer::POA_ptr getPOA() const override { return m_rootPOA.in(); }

  private:
    void activateServant();

    std::uint64_t m_init = 0;
    bool m_shutdown = false;
    const bool m_initAce;
    std::unique_ptr<AceRuntime> m_ace;
    const std::string m_name;
    const DiscoveryServiceType m_type;
    Orb* const m_orb;
    Remote::DiscoveryService_i* m_servant = nullptr;
    PortableServer::POA_var m_rootPOA;
    CORBA::Object_var m_servantReference;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
