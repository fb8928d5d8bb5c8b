#pragma once
// Whether a peer is the host whose name it claims.

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

#include <tlx/RequestPeer.h>

#include "AccessList.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// How long one resolution may take.
constexpr std::chrono::seconds OWN_NAME_LIMIT{5};
/// How long an answer holds: that a name is the peer's, and that it is not.
constexpr std::chrono::seconds OWN_NAME_KEPT{300};
constexpr std::chrono::seconds FOREIGN_NAME_KEPT{10};
/// The most answers of each of the two kinds that are kept.
constexpr std::size_t MAX_OWN_NAMES = 10000;
constexpr std::size_t MAX_FOREIGN_NAMES = 1000;
/// The most resolutions at a time: of all peers, and of one address.
constexpr unsigned MAX_RESOLUTIONS = 16;
constexpr unsigned MAX_RESOLUTIONS_OF_A_PEER = 2;

/// Finds out whether a name is the peer's own. Any thread; no lock is held during a resolution.
///
/// With a certificate the name in it is the peer's own. Without one, a name is the peer's own if it
/// resolves to the peer's address. Only the claimed name is resolved: who owns an address can
/// choose what a reverse lookup answers. An answer is kept for a while. A peer that claims many
/// names gets "no" when it has used up its share of resolutions, and cannot push the good answers
/// of others out of the memory.
class OwnNames
{
  public:
    using Clock = std::chrono::steady_clock;

    /// @param interfaces this machine's addresses, sorted: such a peer also owns this host's name.
    bool isOwn(const std::string& claimed, const RequestPeer& peer, const Addresses& interfaces);

    /// Forgets all answers.
    void clear();

  private:
    using Claim = std::pair<std::string, std::string>; ///< name and address
    using Answers = std::map<Claim, Clock::time_point>;

    bool resolvesTo(const Claim& claim);
    static bool isKept(Answers& answers, const Claim& claim);
    static void keep(Answers& answers, const Claim& claim, std::chrono::seconds limit,
                     std::size_t most);

    std::mutex m_mutex;
    Answers m_own;                               ///< until when the answer holds
    Answers m_foreign;                           ///< the same
    std::map<std::string, unsigned> m_resolving; ///< by address
    unsigned m_resolutions = 0;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
