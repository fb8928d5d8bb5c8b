#pragma once
// Several queries presented as one.

#include <cstddef>
#include <string>
#include <vector>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Yields all that its first iterator yields, then all of the second, and so on; drops no
/// duplicates. Used by one thread at a time.
class DISCSRV_EXPORT CombiningIterator : public virtual DiscoveryIterator
{
  public:
    /// Copies the vector, with a reference to each iterator. They are used as they are: this
    /// iterator's own filters are not handed on to them.
    CombiningIterator(AuthorityType type, std::string authority, std::string subject,
                      std::vector<AutoDereference<DiscoveryIterator>>& iterators);

    Discovery* getNext() override;
    ~CombiningIterator() override;

  private:
    std::vector<AutoDereference<DiscoveryIterator>> m_iterators;
    std::size_t m_current = 0;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
