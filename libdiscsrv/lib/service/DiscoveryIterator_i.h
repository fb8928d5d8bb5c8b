#pragma once
// The servant that returns records in pages.

#include <cstddef>
#include <optional>
#include <string>

#include "DiscData.h"
#include "EvictableServant.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// What a page shows of a record.
struct PageRow
{
    std::string subject;
    std::string authority;
    AuthorityType type;
    /// The service of a RemoteExplorerPull, otherwise this one.
    std::string service;
};

/// Requests from the wire come one at a time.
class DiscoveryIterator_i
    : public EvictableServant<POA_Veltrane::Quillmark::Tlx::DiscoverySvc::Remote::DiscoveryIterator,
                              Remote::DiscoveryIterator>
{
  public:
    /// Takes a reference to the iterator. Null makes a servant without records.
    explicit DiscoveryIterator_i(Tlx::DiscoverySvc::DiscoveryIterator* iterator);

    /// Returns a page of pageSize + 1 records. A page is shorter at the end, and when the next
    /// record does not fit into largestPage(). It leaves out and logs a record that fits into no
    /// page: plug-ins and older stores may have names of any length. A negative page size gives
    /// empty pages.
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
    const std::size_t m_largestPage; ///< bytes
    std::optional<PageRow> m_next;   ///< taken from the iterator, and in no page yet
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
