#pragma once
// Queries the repository for discoveries, to read them as items.

#include <string>

#include <tl/expected.hpp>
#include <tlx/RefCounted.h>

#include "AuthSubIterator.h"
#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The subjects under which hosts publish the filters of their items.
// Compat(client-subjects): peers publish under the first (Windows hosts) or the second (UNIX
// hosts). Each host that does is a discovered client.
constexpr const char* CLIENT_SUBJECTS[] = {"volume", "filesystem"};

/// Queries the repository (DiscoveryRepository::queryDiscoveries). Returns a new iterator, which
/// the caller releases. On failure it logs that and returns null. Any thread may call it.
/// @param first the subject.
/// @param second the authority.
DISCSRV_EXPORT AuthSubIterator* getAuthSubIterator(DiscoveryQuery query, const std::string& first,
                                                   const std::string& second, AuthorityType type);

/// The same. It returns the failure as a value.
[[nodiscard]] DISCSRV_EXPORT tl::expected<AutoDereference<AuthSubIterator>, ResearchFailure>
researchDiscoveries(DiscoveryQuery query, const std::string& subject, const std::string& authority,
                    AuthorityType type);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
