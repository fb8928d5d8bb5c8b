#pragma once
// Name resolution that takes no longer than it is told.

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Veltrane::Quillmark::Tlx {

/// The numeric addresses (IPv4 and IPv6, in the resolver's order, each once) of a host name or
/// numeric address; empty when there is none or the limit ran out. A resolver that hangs keeps a
/// background thread until it answers, at most 128 at a time (then further names fail at once);
/// numeric addresses never wait. Any thread; does not throw.
std::vector<std::string> resolveHost(const std::string& host, std::chrono::milliseconds limit);

/// Whether a numeric address is one of this machine's. Loopback addresses are.
bool isLocalAddress(const std::string& address);

/// Takes the place of the system's resolver (tests); an empty function brings it back. Called on
/// the background thread, never for numeric addresses.
void setResolver(std::function<std::vector<std::string>(const std::string& host)> resolver);

} // namespace Veltrane::Quillmark::Tlx
