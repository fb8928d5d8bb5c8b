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

    // What clients hold. PULLED_BYTES and a name with OPEN are values of now. HIGHEST is
    // the highest value so far.
    ITERATORS_OPEN,
    ITERATORS_HIGHEST,
    ITERATORS_GIVEN_UP, ///< idle iterators that made room for others
    ITERATORS_REFUSED,  ///< because none was idle
    WRITERS_OPEN,
    WRITERS_HIGHEST,
    WRITERS_GIVEN_UP,    ///< left alone for WRITER_IDLE_LIMIT
    WRITERS_REFUSED,     ///< beyond MAX_WRITERS_PER_PEER, or beyond a share of the free names
    WRITERS_CROWDED_OUT, ///< those of them that were beyond a share of the free names
    PULLED_BYTES,        ///< of pulled collections in memory
    PULLED_BYTES_HIGHEST,
    PULLS_REFUSED,      ///< collections that did not fit into memory
    PULLS_TURNED_AWAY,  ///< because too many run already, of all hosts or of one
    EXPLORERS_GIVEN_UP, ///< registrations of other hosts that went because of their number
    FOREIGN_USES,       ///< requests on an object of another peer
};

/// Adds to a counter. Any thread may call it; it never waits.
DISCSRV_EXPORT void countService(ServiceCounter counter, unsigned long long amount = 1);

/// Sets a counter that is the value of now. Any thread; never waits.
DISCSRV_EXPORT void setService(ServiceCounter counter, unsigned long long value);

/// Sets a counter unless it is higher already. Any thread; never waits.
DISCSRV_EXPORT void raiseService(ServiceCounter counter, unsigned long long value);

struct CounterValue
{
    const char* name; ///< a literal, in lowerCamel
    unsigned long long value;
};

/// Returns all counters in the order above, then "failedAssertions".
DISCSRV_EXPORT std::vector<CounterValue> serviceCounters();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
