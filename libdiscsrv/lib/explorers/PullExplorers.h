#pragma once
// Which pull explorers answer a query.

#include <string>

#include "DiscData.h"
#include "ExplorerWrapper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Finds the records that pull explorers can produce. It takes the first explorer in the set that
/// matches, and all after it, whether they match or not. Returns null if none matches, otherwise a
/// new iterator, which the caller releases. The names may contain wildcards. Any thread may call
/// it.
DiscoveryIterator* findPullExplorers(DiscoveryQuery query, const ExplorerSet& explorers,
                                     const std::string& subject, const std::string& authority);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
