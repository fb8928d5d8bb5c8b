#pragma once
// The discovery service as the host daemon runs it.

#include <tlx/OrbService.h>

#include "DiscoveryFramework.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The daemon calls the hooks in the order that OrbService tells, on its main thread.
class DISCSRV_EXPORT DiscoverySvc : public OrbService
{
  public:
    explicit DiscoverySvc(bool foreground);
    ~DiscoverySvc() override;

    void doInit() override;
    /// 0, or -1 when the framework does not come up; a CORBA exception may leave it. Does not
    /// block.
    int doRun() override;
    void doStop() override;
    void doExit() override;
    /// False only when the configuration says REPORT_CLIENT_DISCOVERIES = FALSE: a configuration
    /// that cannot be read never keeps the service down.
    bool doShouldStart() override;

  private:
    AutoDereference<DiscoveryFramework> m_framework;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
