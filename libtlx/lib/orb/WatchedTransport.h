#pragma once
// The ORB's transport for the hosts that connect here, with bounds on what they may do.
//
// The ORB gives a thread to each connection that has something to read. A peer that sends half a
// request would keep this thread. Here one thread watches all connections and reads their
// requests. A request gets a thread of the ORB when it has arrived, and when it is its peer's turn.
//
// The ORB's own waits have no limit, or hold locks of the whole ORB. Here each wait has a limit,
// and ConnectionTable can break it off.

namespace Veltrane::Quillmark::Tlx {

struct ServerShared;

/// The scheme of an endpoint that listens in this way: "giop:watched:ADDRESS:PORT". References
/// carry the ORB's own schemes, "giop:tcp" and "giop:ssl".
constexpr const char* WATCHED_SCHEME = "giop:watched";

/// Makes the scheme known to the ORB, and sets what the endpoints made later use. Call it before
/// the ORB starts. The transport keeps it until the next call.
void installWatchedTransport(const ServerShared& shared);

} // namespace Veltrane::Quillmark::Tlx
