#pragma once
// The servant that returns records in pages.

#include "DiscData.h"
#include "EvictableServant.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// Requests from the wire come one at a time.
class DiscoveryIterator_i
    : public EvictableServant<POA_Veltrane::Quillmark::Tlx::DiscoverySvc::Remote::DiscoveryIterator,
                              Remote::DiscoveryIterator>
{
  public:
    /// Takes a reference to the iterator. Null makes a servant without records.
    explicit DiscoveryIterator_i(Tlx::DiscoverySvc::DiscoveryIterator* iterator);

    /// Returns a page of pageSize + 1 records. A page is shorter at the end, and when it reaches
    /// MAX_PAGE_BYTES. A negative page size gives empty pages.
    DiscoverySeq* getNextPage() override;
    CORBA::Long pageSize() override;
    void pageSize(CORBA::Long size) override;
    void release() override;

    std::string describe() const override { return "a discovery iterator"; }
    /// The size of a list that this host fetched from the master; 0 for one of its own.
    std::size_t heldBytes() const override;

  private:
    AutoDereference<Tlx::DiscoverySvc::DiscoveryIterator> m_discoveryIterator;
    CORBA::Long m_pageSize = 8;
    TlxString m_hostName;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
