#pragma once
// The common base of the two servants that return pages.

#include <DiscoverySvc.hh>

#include <tlx/Orb.h>
#include <tlx/Servant.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// The evictor deactivates an iterator after this time without a request, because its client no
/// longer needs it.
constexpr long ITERATOR_TIMEOUT_SECONDS = 300;

/// The largest page. A caller may ask for more than fits into memory, and a shorter page is legal.
constexpr std::size_t MAX_PAGE_BYTES = 1u << 20;

/// Base of a servant that the evictor watches. The second parameter names the interface that the
/// servant implements, for the reader only.
template <class Skeleton, class /*Interface*/>
class EvictableServant : public SerialServant<Skeleton>,
                         public virtual PortableServer::RefCountServantBase
{
  public:
    /// The object id of the activated servant; empty before the activation.
    PortableServer::ObjectId_var m_objectId;
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

/// Activates an iterator servant and lets the evictor watch it. Returns its reference, which the
/// caller releases.
/// @param poa the POA, still owned by the caller. It may be nil, and orb may be null.
/// @throws CORBA::SystemException on failure. Nothing stays activated then.
template <class Servant>
auto activateEvictable(Servant& servant, PortableServer::POA_ptr poa, Orb* orb)
{
    if (CORBA::is_nil(poa) || !orb)
        throw CORBA::OBJ_ADAPTER();
    servant.m_objectId = poa->activate_object(&servant);
    try {
        const auto reference = servant._this();
        try {
            add2Evictor(servant.m_objectId.in(), poa, *orb, ITERATOR_TIMEOUT_SECONDS);
        } catch (...) {
            CORBA::release(reference);
            throw;
        }
        return reference;
    } catch (const CORBA::UserException&) {
        // The POA or the evictor threw it while the service stops. The wire contract has no user
        // exceptions.
        deactivateQuietly(poa, servant.m_objectId.in());
        throw CORBA::OBJ_ADAPTER();
    } catch (...) {
        deactivateQuietly(poa, servant.m_objectId.in());
        throw;
    }
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
