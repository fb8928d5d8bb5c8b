#pragma once
// The servant that receives one record from another host.

#include <DiscoverySvc.hh>

#include <tlx/Servant.h>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
class DiscoveryRepository;
}

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// DiscoveryService_i creates, opens and activates a writer. The client's close ends it and drops
/// the reference of its creation. Requests from the wire come one at a time.
class RemoteWriter_i
    : public SerialServant<POA_Veltrane::Quillmark::Tlx::DiscoverySvc::Remote::RemoteWriter>,
      public virtual PortableServer::RefCountServantBase
{
  public:
    explicit RemoteWriter_i(const Remote::Discovery& discovery);
    ~RemoteWriter_i() override;

    CORBA::Boolean put(const CollectionDataSeq& data) override;
    DiscoveryResult close() override;

    /// Makes the local record and opens it for update. Call it before the activation. Subject and
    /// authority have text (NameCheck.h).
    virtual DiscoveryResult open();

    /// The repository that stores the record. A derived writer may return another one.
    virtual DiscoveryRepository* getDiscoveryRepository() const;

    /// Gives the activated writer its own object reference. The writer becomes its owner and
    /// destroys it in close.
    void setObjectReference(CORBA::Object_ptr reference);

    /// Drops the creation reference of every activated writer that was not closed, and so its
    /// unfinished record. Call it during the stop, when requests can no longer reach a writer.
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
