#pragma once
// The common base of the two servants that return pages.

#include <DiscoverySvc.hh>

#include <tlx/Orb.h>

#include "OpenServant.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// The evictor deactivates an iterator after this time without a request, because its client no
/// longer needs it.
constexpr long ITERATOR_TIMEOUT_SECONDS = 300;

/// The largest page. A caller may ask for more than fits into memory, and a shorter page is legal.
constexpr std::size_t MAX_PAGE_BYTES = 1u << 20;

/// Base of a servant that the evictor watches. The second parameter names the interface that the
/// servant implements, for the reader only.
template <class Skeleton, class /*Interface*/>
class EvictableServant : public OwnedServant<Skeleton>
{
};

/// Lets the evictor watch an object and deactivate it after that idle time. Logs a CORBA exception
/// and passes it on.
void add2Evictor(const PortableServer::ObjectId& id, PortableServer::POA* poa, Orb& orb,
                 long timeoutSeconds);

/// Ends the watch over an object and deactivates it.
void removeFromEvictor(PortableServer::ObjectId_var& id, Orb& orb);

/// Deactivates an object. Ignores every CORBA exception, because the object or its POA may be
/// destroyed already.
void deactivateQuietly(PortableServer::POA_ptr poa, const PortableServer::ObjectId& id);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
