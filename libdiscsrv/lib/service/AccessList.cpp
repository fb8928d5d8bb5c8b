#include "AccessList.h"

#include <algorithm>

#include <tlx/Text.h>

#include "AccessEntry.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

/// The longest list in a message.
constexpr std::size_t MAX_SHOWN_BYTES = 200;

/// Whether a certificate's name is one of the names, without regard to case and to a last dot.
bool isNamed(const std::vector<std::string>& names, std::string_view name)
{
    if (name.ends_with('.'))
        name.remove_suffix(1);
    return std::any_of(names.begin(), names.end(), [name](const std::string& each) {
        return std::equal(each.begin(), each.end(), name.begin(), name.end(),
                          [](char a, char b) { return a == lowerCase(b); });
    });
}

std::string shown(const std::vector<std::string>& entries)
{
    std::string text;
    for (const std::string& entry : entries) {
        text += (text.empty() ? "" : ", ") + entry;
        if (text.size() > MAX_SHOWN_BYTES)
            return text.substr(0, text.find_last_of(',')) + ", ...";
    }
    return text.empty() ? "nobody" : text;
}

} // namespace

std::string comparableHost(std::string_view name)
{
    if (name.ends_with('.'))
        name.remove_suffix(1);
    return lowerCase(name);
}

bool isLocal(const NumericAddress& address, const Addresses& interfaces)
{
    return address.isLoopback() ||
           std::binary_search(interfaces.begin(), interfaces.end(), address);
}

const Addresses& KnownAddresses::of(const std::string& host) const
{
    static const Addresses none;
    const auto found = std::find_if(hosts.begin(), hosts.end(),
                                    [&](const auto& each) { return each.first == host; });
    return found == hosts.end() ? none : found->second;
}

AccessList::AccessList(std::string key, const std::vector<std::string>& entries,
                       const KnownAddresses& known)
    : m_text(std::move(key) + " = " + shown(entries))
{
    const auto addHost = [&](const std::string& name) {
        if (name.empty())
            return;
        m_names.push_back(name);
        const Addresses& addresses = known.of(name);
        m_hosts.insert(m_hosts.end(), addresses.begin(), addresses.end());
    };
    for (const std::string& entry : entries) {
        switch (accessEntryKind(entry)) {
        case AccessEntryKind::EVERYBODY:
            m_everybody = true;
            break;
        case AccessEntryKind::OWN:
            m_own = true;
            break;
        case AccessEntryKind::LOCAL:
            m_isLocalAdmitted = true;
            m_local = known.local;
            break;
        case AccessEntryKind::MASTER:
            addHost(comparableHost(known.master));
            break;
        case AccessEntryKind::RANGE:
            if (const auto range = AddressRange::parse(entry))
                m_ranges.push_back(*range);
            break;
        case AccessEntryKind::HOST:
            addHost(comparableHost(entry));
            break;
        case AccessEntryKind::NONE:
            break;
        }
    }
    std::sort(m_hosts.begin(), m_hosts.end());
}

bool AccessList::admits(const RequestPeer& peer) const
{
    if (m_everybody)
        return true;
    if (!peer.certificateName.empty() && isNamed(m_names, peer.certificateName))
        return true;
    const auto address = NumericAddress::parse(peer.address);
    if (!address)
        return false;
    return admitsAddress(*address) ||
           (peer.certificateName.empty() &&
            std::binary_search(m_hosts.begin(), m_hosts.end(), *address));
}

bool AccessList::admitsAddress(const NumericAddress& address) const
{
    return (m_isLocalAdmitted && isLocal(address, m_local)) ||
           std::any_of(m_ranges.begin(), m_ranges.end(),
                       [&](const AddressRange& range) { return range.contains(address); });
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
