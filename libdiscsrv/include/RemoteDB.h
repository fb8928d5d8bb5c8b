#pragma once
// What a host that is not the master needs to know about the master.

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// One a process; any thread.
class DISCSRV_EXPORT RemoteDBCreator
{
  public:
    /// Asks the host configuration, once a process; may resolve names, for at most 5 seconds.
    RemoteDBCreator();
    /// Whether this host is the master.
    bool isMaster() const { return m_isMaster; }

  private:
    void setIsMaster();

    bool m_isMaster = false;
};

DISCSRV_EXPORT RemoteDBCreator* getRemoteDiscoveryDatabase();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
