#pragma once
// Forwards queries to the master.

#include <string>

#include <tlx/Hostname.h>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

class PeerLink;

/// Sends the query to the master. Returns a new iterator, which the caller releases. Returns null
/// on failure, and if too many queries are being forwarded; it logs both. Any thread may call it.
DiscoveryIterator* forwardQuery(PeerLink& link, const TlxHostname& master, DiscoveryQuery query,
                                const std::string& subject, const std::string& authority,
                                AuthorityType type);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
