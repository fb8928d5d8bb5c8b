#pragma once
// Name resolution that takes no longer than it is told.

#include <chrono>
#include <string>
#include <vector>

namespace Veltrane::Quillmark::Tlx {

/// The numeric addresses (IPv4 and IPv6, in the resolver's order) of a host name or numeric address;
/// empty when there is none or the limit ran out. A resolver that hangs keeps a background thread
/// until it answers, at most 16 at a time (then further names fail at once); numeric addresses never
/// wait.
std::vector<std::string> resolveHost(const std::string& host, std::chrono::milliseconds limit);

/// Whether a numeric address is one of this machine's.
bool isLocalAddress(const std::string& address);

} // namespace Veltrane::Quillmark::Tlx
