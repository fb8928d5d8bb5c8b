#pragma once
// Presents several queries as one.

#include <cstddef>
#include <string>
#include <vector>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Returns all records of its first iterator, then all of the second, and so on. It keeps
/// duplicates. One thread at a time uses it.
class DISCSRV_EXPORT CombiningIterator : public virtual DiscoveryIterator, public RecordLister
{
  public:
    /// Copies the vector and takes a reference to each iterator. The iterators keep their own
    /// filters; the names and the type given here do not reach them.
    CombiningIterator(AuthorityType type, std::string authority, std::string subject,
                      std::vector<AutoDereference<DiscoveryIterator>>& iterators);

    Discovery* getNext() override;
    std::optional<ListedRecord> listNext() override;
    ~CombiningIterator() override;

  private:
    std::vector<AutoDereference<DiscoveryIterator>> m_iterators; ///< without null
    std::vector<RecordListing> m_listings;                       ///< one of each iterator
    std::size_t m_current = 0;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
