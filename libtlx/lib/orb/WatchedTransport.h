#pragma once
// The ORB's TCP transport, with bounds on what the hosts that connect here may do.
//
// The ORB gives a thread to each connection that has something to read. A peer that sends half a
// request would keep this thread. Here a thread is given only when the request has arrived, and the
// kernel keeps it until then. A request of more than ARRIVED_BYTES gets its thread earlier.
//
// The ORB's own waits have no limit, or hold locks of the whole ORB. Here each wait has a limit,
// and ConnectionTable can break it off.

#include <memory>
#include <string>

namespace Veltrane::Quillmark::Tlx {

class ConnectionTable;

/// The scheme of an endpoint that listens in this way: "giop:watched:ADDRESS:PORT". References
/// carry "giop:tcp", as they do without it.
constexpr const char* WATCHED_SCHEME = "giop:watched";

/// Makes the scheme known to the ORB, and sets the table for the endpoints made later. Call it
/// before the ORB starts. The transport keeps the table until the next call.
void installWatchedTransport(std::shared_ptr<ConnectionTable> table);

} // namespace Veltrane::Quillmark::Tlx
