#pragma once
// The servant that pages through records.

#include "DiscData.h"
#include "EvictableServant.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// Requests from the wire come one at a time.
class DiscoveryIterator_i
    : public EvictableServant<POA_Veltrane::Quillmark::Tlx::DiscoverySvc::Remote::DiscoveryIterator,
                              Remote::DiscoveryIterator>
{
  public:
    /// Takes a reference of its own; null makes an iterator over nothing.
    explicit DiscoveryIterator_i(Tlx::DiscoverySvc::DiscoveryIterator* iterator);

    /// A page of one record more than pageSize; shorter at the end, and when it grows large.
    DiscoverySeq* getNextPage() override;
    CORBA::Long pageSize() override;
    void pageSize(CORBA::Long size) override;
    void release() override;

  private:
    AutoDereference<Tlx::DiscoverySvc::DiscoveryIterator> m_discoveryIterator;
    CORBA::Long m_pageSize = 8;
    TlxString m_hostName;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
