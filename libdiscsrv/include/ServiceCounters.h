#pragma once
// Counts what the service does from its start, for its status.

#include <vector>

#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

enum class ServiceCounter
{
    QUERIES,          ///< queryDiscoveries requests
    RECORDS_RETURNED, ///< records in pages
    READS,            ///< getCollectionData requests
    BYTES_READ,       ///< payload bytes in pages
    WRITES,           ///< putCollection requests
    BYTES_WRITTEN,    ///< payload bytes received
    RECORDS_STORED,   ///< writers closed with success
    WRITERS_LEFT,     ///< writers that this host left on the master without a close
    REQUESTS_REFUSED, ///< requests whose peer may not do that (ALLOW.*, MAX_REMOTE_PRIORITY)
};

/// Adds to a counter. Any thread may call it; it never waits.
DISCSRV_EXPORT void countService(ServiceCounter counter, unsigned long long amount = 1);

struct CounterValue
{
    const char* name; ///< a literal, in lowerCamel
    unsigned long long value;
};

/// Returns all counters in the order above, then "failedAssertions".
DISCSRV_EXPORT std::vector<CounterValue> serviceCounters();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
