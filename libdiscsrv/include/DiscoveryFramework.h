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

/// The host's main thread calls the constructor, init, shutdown and fini, in this order. In between
/// any thread may call the accessors.
class DISCSRV_EXPORT DiscoveryFramework : public HostedService
{
  public:
    /// Starts nothing.
    /// @param name the service's name, which is also the directory of the on-disk store; empty for
    /// the default.
    /// @param orb not owned; must outlive this object.
    /// @param initAce if true, init initialises ACE and the last fini finalises it.
    DiscoveryFramework(const char* name, DiscoveryServiceType type, Orb* orb, bool initAce);
    ~DiscoveryFramework() override;

    /// Starts the servant, the store and the explorers. Calls nest, and each needs its fini.
    /// Returns false without an ORB.
    /// @throws CORBA::Exception if the activation fails. It logs the exception first, and nothing
    /// stays initialised.
    bool init();

    /// Finishes the requests in progress, then stops what init started. Call it once. Returns true.
    bool shutdown();

    /// Waits for the rest of the background work. Call it after shutdown.
    void fini();

    const std::string& getName() const override { return m_name; }
    DiscoveryServiceType getType() const override { return m_type; }
    Orb* getOrb() const override;
    /// Nil before init and after shutdown.
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
