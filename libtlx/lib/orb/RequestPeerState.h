#pragma once
// How the ORB's interceptors tell the rest of the library about the peer of a request.

#include <string>
#include <string_view>

#include <tlx/RequestPeer.h>

namespace Veltrane::Quillmark::Tlx {

/// Notes the peer for this thread, until the thread's next request, and asks the process's check.
/// Returns what the check says.
bool admitRequest(const RequestPeer& peer, const char* operation);

/// The numeric address in the ORB's form of a connection's address, such as "giop:tcp:ADDRESS:PORT"
/// or "giop:ssl:[ADDRESS]:PORT". Returns the whole text when it has another form.
std::string addressOfConnection(std::string_view uri);

/// Connections of one network count as one peer: an IPv6 host chooses among 2^64 addresses of its
/// network. Returns the address itself for IPv4.
std::string peerOfAddress(const std::string& address);

} // namespace Veltrane::Quillmark::Tlx
