#pragma once
// The service that this process hosts, for the rooms below the room host.

#include <cstdint>
#include <string>

#include <tlx/Corba.h>
#include <tlx/RefCounted.h>

#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx {
class Orb;
}

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

enum DiscoveryServiceType : std::uint32_t
{
    DST_NO_SERVANT = 0,
    DST_GENERIC = 1 ///< the generic discovery service
};

/// The service's name and kind, its ORB and its POA. Any thread may call.
class DISCSRV_EXPORT HostedService : public virtual TLXRefCounted
{
  public:
    /// The service's name, which is also the directory of the on-disk store; empty for the default.
    virtual const std::string& getName() const = 0;
    virtual DiscoveryServiceType getType() const = 0;
    /// The caller is not the owner.
    virtual Orb* getOrb() const = 0;
    /// The POA of the servants; nil while the service does not serve. Do not release it.
    virtual PortableServer::POA_ptr getPOA() const = 0;

  protected:
    ~HostedService() override;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
