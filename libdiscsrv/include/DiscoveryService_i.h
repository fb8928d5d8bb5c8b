#pragma once
// The servant of the DiscoveryService interface.

#include <DiscoverySvc.hh>

#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

class RemoteWriter_i;

/// Other hosts and tools reach this process's repository through this one object. It has no state,
/// and any number of threads call it at once. Only CORBA system exceptions leave an operation.
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

    /// Makes a writer for the record. The caller owns its one reference. A derived servant may make
    /// another kind of writer.
    virtual RemoteWriter_i* newRemoteWriter(const Remote::Discovery& discovery) const;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
