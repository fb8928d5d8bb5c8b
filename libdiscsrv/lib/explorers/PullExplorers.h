#pragma once
// Which pull explorers answer a query.

#include <string>

#include "DiscData.h"
#include "ExplorerWrapper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// What pull explorers can produce: the first one in the set whose names match, and all after it,
/// whether or not they match. Null when none matches; otherwise a new iterator for the caller to
/// release. The names may hold wildcards. Any thread.
DiscoveryIterator* findPullExplorers(DiscoveryQuery query, const ExplorerSet& explorers,
                                     const std::string& subject, const std::string& authority);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
