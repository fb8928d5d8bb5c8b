#pragma once
// Name resolution with a limit on its time.

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Veltrane::Quillmark::Tlx {

/// The most names that may wait for the system's resolver at a time. A service makes fewer calls to
/// other hosts at once.
constexpr int MAX_RESOLVING = 128;

/// Returns the numeric addresses of a host name or a numeric address: IPv4 and IPv6, in the
/// resolver's order, each once. The list is empty if the host has no address or the limit ran out.
/// A resolver that hangs keeps a background thread until it answers. When there are `most` of
/// these, the name fails at once. Numeric addresses never wait. Any thread; does not throw.
[[nodiscard]] std::vector<std::string>
resolveHost(const std::string& host, std::chrono::milliseconds limit, int most = MAX_RESOLVING);

/// Whether a numeric address belongs to this machine, as loopback addresses do.
bool isLocalAddress(const std::string& address);

/// Replaces the system's resolver (tests); an empty function installs it again. The function runs
/// on the background thread, and never for numeric addresses.
void setResolver(std::function<std::vector<std::string>(const std::string& host)> resolver);

} // namespace Veltrane::Quillmark::Tlx
