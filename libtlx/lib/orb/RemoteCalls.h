#pragma once
// What bounds the calls of this process to other hosts.

namespace Veltrane::Quillmark::Tlx {

/// Sets these rules for the process's ORB. Call it when the ORB is up.
///
/// - No call is repeated by the ORB. By default it repeats a call whose reference was forwarded
///   and then failed, again and again, and the other host may carry it out each time.
/// - After announceStop, no call begins and no connection comes up.
void limitRemoteCalls();

/// Breaks off all calls that are in progress. They fail with COMM_FAILURE or TRANSIENT, and later
/// ones with TRANSIENT. Call announceStop first.
///
/// The ORB does not say which sockets wait for a connection to come up. So this breaks off all such
/// sockets of the process, also those of a plug-in.
void breakOffCalls();

} // namespace Veltrane::Quillmark::Tlx
