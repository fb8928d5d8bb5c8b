#pragma once
// What bounds the calls of this process to other hosts.

#include <chrono>
#include <cstddef>
#include <functional>

#include <tlx/Endpoint.h>

namespace Veltrane::Quillmark::Tlx {

/// The most forwards that one call follows. A hostile host may answer each call with a forward, for
/// example to itself. An honest service sends one: from its advertised name to its object.
constexpr unsigned MOST_FORWARDS = 5;
/// The most connections that one call opens. A hostile host may end each of them with a goodbye,
/// and then the ORB sends the request again.
constexpr unsigned MOST_CONNECTIONS_OF_A_CALL = 8;
/// How many addresses of a reference are used, and how many names among them. The ORB tries one
/// after the other, and looks up all names.
constexpr std::size_t MOST_ADDRESSES = 32;
constexpr std::size_t MOST_NAMES = 4;

/// The most connections to one address, also if they lead to different ports or come from different
/// references. It is above CONNECTIONS_TO_A_HOST, which the ORB allows for each list of addresses.
constexpr std::size_t MOST_CONNECTIONS_TO_AN_ADDRESS = 128;

/// What the rules need to know.
struct RemoteCallRules
{
    /// Whether an endpoint with a numeric address leads to this process. Any thread calls it, while
    /// the ORB is up.
    std::function<bool(const Endpoint&)> leadsHere;
    /// The most connections to all other hosts together.
    std::size_t mostConnections = 0;
};

/// Sets these rules for the process's ORB. Call it when the ORB is up.
///
/// - No call is repeated by the ORB. By default it repeats a call whose reference was forwarded
///   and then failed, again and again, and the other host may carry it out each time.
/// - A call ends with IMP_LIMIT after MOST_FORWARDS, and after MOST_CONNECTIONS_OF_A_CALL. These
///   two hold for calls with a time limit.
/// - A call ends with NO_RESOURCES if it needs a connection beyond mostConnections, or beyond
///   MOST_CONNECTIONS_TO_AN_ADDRESS. The ORB keeps a connection for 30 s after its last call.
/// - Of a reference, only the first MOST_ADDRESSES are used, and MOST_NAMES among them.
/// - This process opens no connection to itself. The call ends with NO_PERMISSION. Otherwise the
///   references of other hosts could make it call itself, with its own rights.
/// - A call names its target by the object key. If the other host wants another form, the call ends
///   with NO_IMPLEMENT.
/// - After announceStop, no call begins, and each new connection is refused.
void limitRemoteCalls(RemoteCallRules rules);

/// As Orb::setOrbRequestTimeout.
void setProcessCallLimit(std::chrono::seconds limit);

/// Counts a call to another host that this process has ended, for Orb::callsRefused.
void noteRefusedCall();

/// How many connections to other hosts the calling thread has opened until now, with those that
/// were then refused.
unsigned connectionsOpened();

/// Breaks off all calls that are in progress. They fail with COMM_FAILURE or TRANSIENT, and later
/// ones with TRANSIENT. Call announceStop first.
///
/// The ORB does not say which sockets wait for a connection to come up. So this breaks off all such
/// sockets of the process, also those of a plug-in.
void breakOffCalls();

} // namespace Veltrane::Quillmark::Tlx
