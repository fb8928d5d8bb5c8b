#pragma once
// What can be asked about the items that were discovered, whoever discovered them.

#include <string>

#include <tlx/Query.h>

#include "DiscExport.h"
#include "Researcher.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The union of all query descriptions that explorers have published as "FilterData" documents
/// under an authority and a subject. Finding it reads every such record, over the network when this
/// host is not the master. What cannot be read is logged by the researcher and left out; without
/// any the query is empty.
class DISCSRV_EXPORT FilterDescription : public TlxQuery
{
  public:
    /// @param first the authority, @param second the subject; both may hold wildcards, and an empty
    /// one is any.
    FilterDescription(const std::string& first, const std::string& second);
    ~FilterDescription() override;
};

/// Merges every description among one record's items.
DISCSRV_EXPORT void mergeDescriptions(TlxQuery& query, CollectionItemIterator& items);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
