#pragma once
// Queries that the master answers.

#include <string>

#include <tlx/Hostname.h>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

class PeerLink;

/// Asks the master. Null on failure (logged), and when the link's bound on forwarded queries is
/// reached; otherwise a new iterator for the caller to release. Any thread.
DiscoveryIterator* forwardQuery(PeerLink& link, const TlxHostname& master, DiscoveryQuery query,
                                const std::string& subject, const std::string& authority,
                                AuthorityType type);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
