#pragma once
// The filters that all discovered items support.

#include <string>

#include <tlx/Query.h>

#include "DiscExport.h"
#include "Researcher.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The union of the query descriptions that explorers publish as "FilterData" documents under an
/// authority and a subject. The constructor reads every such record, over the network if this host
/// is not the master. It logs a record that it cannot read and leaves it out. Without any record
/// the query is empty.
class DISCSRV_EXPORT FilterDescription : public TlxQuery
{
  public:
    /// Both names may hold wildcards; an empty name stands for any.
    /// @param first the authority.
    /// @param second the subject.
    FilterDescription(const std::string& first, const std::string& second);
    ~FilterDescription() override;
};

/// Merges all descriptions among one record's items into the query.
DISCSRV_EXPORT void mergeDescriptions(TlxQuery& query, CollectionItemIterator& items);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
