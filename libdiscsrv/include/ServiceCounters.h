#pragma once
// What the service has done since it started, for its status.

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
    WRITERS_LEFT,     ///< writers of this host's that were left on the master unclosed
};

/// Any thread; never waits.
DISCSRV_EXPORT void countService(ServiceCounter counter, unsigned long long amount = 1);

struct CounterValue
{
    const char* name; ///< a literal, in lowerCamel
    unsigned long long value;
};

/// All counters in the order above, and after them "failedAssertions".
DISCSRV_EXPORT std::vector<CounterValue> serviceCounters();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
