#pragma once
// What the two page-by-page servants share.

#include <DiscoverySvc.hh>

#include <tlx/Orb.h>
#include <tlx/Servant.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// An iterator that nobody has used for this long is deactivated: its client is gone.
constexpr long ITERATOR_TIMEOUT_SECONDS = 300;

/// A page ends when it has grown to this size. A caller may ask for more at once than fits into
/// memory; a page that is shorter than asked for is legal.
constexpr std::size_t MAX_PAGE_BYTES = 1u << 20;

/// Base of a servant that the evictor watches. The second parameter names the interface that the
/// servant implements, for the reader only.
template <class Skeleton, class /*Interface*/>
class EvictableServant : public SerialServant<Skeleton>,
                         public virtual PortableServer::RefCountServantBase
{
  public:
    /// The id under which the servant was activated; empty until then.
    PortableServer::ObjectId_var m_objectId;
};

/// Has an object evicted when it is idle for that long. A CORBA exception is logged and thrown on.
void add2Evictor(const PortableServer::ObjectId& id, PortableServer::POA* poa, Orb& orb,
                 long timeoutSeconds);

/// Stops watching an object, and deactivates it.
void removeFromEvictor(PortableServer::ObjectId_var& id, Orb& orb);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
