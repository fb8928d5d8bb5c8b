#pragma once
// The servant that receives one record from another host.

#include <DiscoverySvc.hh>

#include <tlx/Servant.h>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
class DiscoveryRepository;
}

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// Made and opened by the service's servant, activated, and ended by its client's close: the
/// reference of its creation is dropped there. Requests from the wire come one at a time.
class RemoteWriter_i
    : public SerialServant<POA_Veltrane::Quillmark::Tlx::DiscoverySvc::Remote::RemoteWriter>,
      public virtual PortableServer::RefCountServantBase
{
  public:
    explicit RemoteWriter_i(const Remote::Discovery& discovery);
    ~RemoteWriter_i() override;

    CORBA::Boolean put(const CollectionDataSeq& data) override;
    DiscoveryResult close() override;

    /// Makes the local record and opens it for update; before activation.
    virtual DiscoveryResult open();

    /// Where the record goes; a derived writer may store elsewhere.
    virtual DiscoveryRepository* getDiscoveryRepository() const;

    /// Tells the writer, now activated, its own reference, which it takes over and destroys in
    /// close.
    void setObjectReference(CORBA::Object_ptr reference);

    /// Drops the creation reference of every activated writer that was not closed, and with it what
    /// it has written so far. For the stop, when no request can reach a writer any more.
    static void abandonAll();

  private:
    CORBA::Object_var m_objRef;
    AutoDereference<Tlx::DiscoverySvc::Discovery> m_discovery;
    TlxString m_subject;
    TlxString m_authority;
    AuthorityType m_authType;
    CollectionType m_colType;
    CollectionStorage m_colStorage;
    unsigned int m_priority;
    std::uint64_t m_timeToLive;    ///< seconds
    std::uint64_t m_discoveryTime; ///< seconds since the epoch
    DiscoveryQuery m_queryType;
    bool m_closed = false;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
