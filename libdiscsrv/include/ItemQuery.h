#pragma once
// Asking the repository for discoveries, to read them as items.

#include <string>

#include <tl/expected.hpp>
#include <tlx/RefCounted.h>

#include "AuthSubIterator.h"
#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The subjects under which hosts publish what their items can be filtered by. A host that
/// publishes there is a discovered client. Windows hosts use the first, UNIX hosts the second.
constexpr const char* CLIENT_SUBJECTS[] = {"volume", "filesystem"};

/// What the repository finds (DiscoveryRepository::queryDiscoveries: subject, then authority): a
/// new iterator for the caller to release; null, and logged, on failure. Any thread.
DISCSRV_EXPORT AuthSubIterator* getAuthSubIterator(DiscoveryQuery query, const std::string& first,
                                                   const std::string& second, AuthorityType type);

/// The same, with the failure as a value.
[[nodiscard]] DISCSRV_EXPORT tl::expected<AutoDereference<AuthSubIterator>, ResearchFailure>
researchDiscoveries(DiscoveryQuery query, const std::string& subject, const std::string& authority,
                    AuthorityType type);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
