#pragma once
// The entries of the lists ALLOW.*, which say who may do what. Here is what an entry is as text;
// lib/service/AccessList.h has what it admits.

#include <string>
#include <string_view>

#include <tlx/Address.h>
#include <tlx/Endpoint.h>
#include <tlx/Text.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

enum class AccessEntryKind
{
    EVERYBODY, ///< "*"
    OWN,       ///< "own": a host may write and register what bears its own name
    LOCAL,     ///< "local": this machine
    MASTER,    ///< "master": the host that SERVER names
    RANGE,     ///< an address, or a range of addresses
    HOST,      ///< a host's name
    NONE       ///< it cannot be read
};

/// Returns the kind of an entry. The case of the three words does not matter. A name whose last
/// label is a number is no host: resolvers take "10.1" for an address that nobody has written.
inline AccessEntryKind accessEntryKind(const std::string& entry)
{
    const std::string word = lowerCase(entry);
    if (word == "*")
        return AccessEntryKind::EVERYBODY;
    if (word == "own")
        return AccessEntryKind::OWN;
    if (word == "local")
        return AccessEntryKind::LOCAL;
    if (word == "master")
        return AccessEntryKind::MASTER;
    if (AddressRange::parse(entry))
        return AccessEntryKind::RANGE;
    const std::string_view name = std::string_view(word).substr(0, word.find_last_not_of('.') + 1);
    const std::string_view label = name.substr(name.rfind('.') + 1);
    const bool isNumber =
        label.find_first_not_of("0123456789") == std::string_view::npos ||
        (label.starts_with("0x") &&
         label.find_first_not_of("0123456789abcdef", 2) == std::string_view::npos);
    return isHost(entry) && !isNumber ? AccessEntryKind::HOST : AccessEntryKind::NONE;
}

inline bool isAccessEntry(const std::string& entry)
{
    return accessEntryKind(entry) != AccessEntryKind::NONE;
}

/// For a list whose operations name no owner.
inline bool isAccessEntryWithoutOwn(const std::string& entry)
{
    const AccessEntryKind kind = accessEntryKind(entry);
    return kind != AccessEntryKind::NONE && kind != AccessEntryKind::OWN;
}

inline constexpr const char* NO_ACCESS_ENTRY =
    "is left out, expected a host, an address, a range, own, local, master or *";
inline constexpr const char* NO_ACCESS_ENTRY_WITHOUT_OWN =
    "is left out, expected a host, an address, a range, local, master or *";

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
