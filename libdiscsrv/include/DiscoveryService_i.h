#pragma once
// The servant of the DiscoveryService interface.

#include <DiscoverySvc.hh>

#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

class RemoteWriter_i;

/// The one object through which other hosts and tools reach this process's repository. Holds no
/// state; requests come on any number of threads at once. Only CORBA system exceptions leave an
/// operation.
class DISCSRV_EXPORT DiscoveryService_i
    : public virtual POA_Veltrane::Quillmark::Tlx::DiscoverySvc::Remote::DiscoveryService,
      public virtual PortableServer::RefCountServantBase
{
  public:
    DiscoveryIterator_ptr queryDiscoveries(DiscoveryQuery queryType, AuthorityType authType,
                                           const char* authority, const char* subject) override;
    DiscoveryStatus getCollectionData(const Remote::Discovery& discovery, const char* filter,
                                      CollectionDataIterator_out iterator) override;
    DiscoveryResult putCollection(const Remote::Discovery& discovery,
                                  RemoteWriter_out writer) override;
    void registerExplorer(const char* sourceServiceName, const char* sourceHost,
                          const char* subject, const char* authority, AuthorityType authType,
                          CORBA::Short priority) override;
    CORBA::Boolean terminate() override;
    void restartLocalPushTimer() override;
    CORBA::Boolean restartAllPushTimers() override;

    /// A new writer for the record, with one reference for the caller; a derived servant may supply
    /// another kind.
    virtual RemoteWriter_i* newRemoteWriter(const Remote::Discovery& discovery) const;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
