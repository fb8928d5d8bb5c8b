#pragma once
// The discovery service for the host daemon.

#include <tlx/OrbService.h>

#include "DiscoveryFramework.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The daemon calls the hooks on its main thread, in the order that OrbService states.
class DISCSRV_EXPORT DiscoverySvc : public OrbService
{
  public:
    explicit DiscoverySvc(bool foreground);
    ~DiscoverySvc() override;

    void doInit() override;
    /// Returns 0, or -1 if the framework does not start. Does not block. It may throw a CORBA
    /// exception.
    int doRun() override;
    void doStop() override;
    void doExit() override;
    /// Takes over the keys ALLOW.* and MAX_REMOTE_PRIORITY as they were read again.
    void doReconfig() override;
    /// Returns false only if the configuration has REPORT_CLIENT_DISCOVERIES = FALSE. The service
    /// also starts without a readable configuration.
    bool doShouldStart() override;

  private:
    AutoDereference<DiscoveryFramework> m_framework;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
