#pragma once
// One list of ALLOW.*: who may take a role.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <tlx/Address.h>
#include <tlx/RequestPeer.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

using Addresses = std::vector<NumericAddress>;

/// The addresses behind what the lists name without an address.
struct KnownAddresses
{
    Addresses local;                                        ///< of this machine's interfaces
    std::vector<std::pair<std::string, Addresses>> hosts{}; ///< by their names in lower case
    std::string master{};                                   ///< the master's name; may be empty

    /// Empty for a host that is not known.
    const Addresses& of(const std::string& host) const;
    friend bool operator==(const KnownAddresses&, const KnownAddresses&) = default;
};

/// Immutable. Any thread may use it. A check neither waits nor takes a lock.
class AccessList
{
  public:
    /// Admits nobody.
    AccessList() = default;
    /// @param key the list's key, for messages.
    /// @param entries good entries (AccessEntry.h). An entry that is not admits nobody.
    AccessList(std::string key, const std::vector<std::string>& entries,
               const KnownAddresses& known);

    /// Whether an entry other than `own` admits the peer.
    /// - Addresses, ranges and `local` compare with the peer's address.
    /// - Hosts and `master` compare with the name in its certificate. Without a certificate they
    ///   compare their known addresses with the peer's address.
    bool admits(const RequestPeer& peer) const;
    /// Whether the list has `own`.
    bool admitsOwners() const { return m_own; }
    /// "ALLOW.control = local, master". A long list is cut.
    const std::string& text() const { return m_text; }

  private:
    bool admitsAddress(const NumericAddress& address) const;

    bool m_everybody = false;
    bool m_own = false;
    std::string m_text;
    std::vector<AddressRange> m_ranges;
    Addresses m_local; ///< sorted; empty without `local`
    bool m_isLocalAdmitted = false;
    std::vector<std::string> m_names; ///< of hosts and of the master, in lower case
    Addresses m_hosts;                ///< of these names, sorted
};

/// The form in which names of hosts compare: lower case, without a dot at the end.
std::string comparableHost(std::string_view name);

/// Whether an address is a loopback address or one of the sorted list's.
bool isLocal(const NumericAddress& address, const Addresses& interfaces);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
