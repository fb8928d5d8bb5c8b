#pragma once
// The service that this process hosts, as the rooms below the host see it.

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

/// The service's name and kind, and what it is bound to. Any thread may ask.
class DISCSRV_EXPORT HostedService : public virtual TLXRefCounted
{
  public:
    /// The service's name, and the directory of the on-disk store; empty for the default.
    virtual const std::string& getName() const = 0;
    virtual DiscoveryServiceType getType() const = 0;
    /// Not owned by the caller.
    virtual Orb* getOrb() const = 0;
    /// The POA of the servants; nil while the service does not serve; not to be released.
    virtual PortableServer::POA_ptr getPOA() const = 0;

  protected:
    ~HostedService() override;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
