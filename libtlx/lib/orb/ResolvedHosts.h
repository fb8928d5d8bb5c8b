#pragma once
// Which hosts this process has looked up, by their addresses.

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <tlx/Address.h>

namespace Veltrane::Quillmark::Tlx {

/// The most pairs of an address and a host that are kept. Beyond it, those that were noted longest
/// ago go. That does no harm: each lookup notes its host again just before it connects.
constexpr std::size_t MAX_RESOLVED_HOSTS = 20000;

/// Any thread.
class ResolvedHosts
{
  public:
    explicit ResolvedHosts(std::size_t most = MAX_RESOLVED_HOSTS) : m_most(most) {}

    /// A host leads to a numeric address. The host may be a numeric address itself. Does nothing
    /// for a text that is no address, and for an empty host.
    void note(const std::string& host, const std::string& address);

    /// The hosts that lead to a numeric address, sorted.
    std::vector<std::string> of(const std::string& address) const;

  private:
    using Pair = std::pair<NumericAddress, std::string>;

    const std::size_t m_most;
    mutable std::mutex m_mutex;
    std::map<Pair, std::uint64_t> m_pairs; ///< with the number of the last note
    std::map<std::uint64_t, Pair> m_byAge;
    std::uint64_t m_notes = 0;
};

} // namespace Veltrane::Quillmark::Tlx
