#pragma once
// The servant that receives one record from another host.

#include <DiscoverySvc.hh>

#include "DiscData.h"
#include "OpenServant.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
class DiscoveryRepository;
}

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// DiscoveryService_i creates, registers, opens and activates a writer. OpenObjects owns it until
/// the client's close, or until it is given up. Requests from the wire come one at a time.
class RemoteWriter_i
    : public OwnedServant<POA_Veltrane::Quillmark::Tlx::DiscoverySvc::Remote::RemoteWriter>
{
  public:
    explicit RemoteWriter_i(const Remote::Discovery& discovery);
    ~RemoteWriter_i() override;

    /// After close both fail with OBJECT_NOT_EXIST.
    CORBA::Boolean put(const CollectionDataSeq& data) override;
    DiscoveryResult close() override;

    std::string describe() const override;

    /// Makes the local record and opens it for update. Call it before the activation. Subject and
    /// authority have text (NameCheck.h).
    virtual DiscoveryResult open();

    /// The repository that stores the record. A derived writer may return another one.
    virtual DiscoveryRepository* getDiscoveryRepository() const;

  private:
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
