#pragma once
// The names that people use for the values of the wire contract.

#include <optional>
#include <string>

#include <tlx/Corba.h>

#include <DiscoverySvc.hh>

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace Svc = Tlx::DiscoverySvc;

/// Absent if the text does not name a value. The case of letters does not matter.
[[nodiscard]] std::optional<Svc::AuthorityType> parseAuthorityType(const std::string& text);
[[nodiscard]] std::optional<Svc::DiscoveryQuery> parseQueryType(const std::string& text);

std::string toName(Svc::AuthorityType type);
/// "DS_NONE_FOUND".
std::string toName(Svc::DiscoveryStatus status);

/// Every name: "anyandall, qmkserver, qmkclient, extsrc or remotepull".
std::string authorityTypeNames();
std::string queryTypeNames();

/// Whether a subject or authority contains a wildcard ("%2A" is a "*", too). A query accepts it,
/// but it cannot name a single record.
bool isPattern(const std::string& name);

} // namespace Veltrane::Quillmark::Qmdiscoctl
