#pragma once
// The names that people use for the values of the wire contract.

#include <string>

#include <tlx/Corba.h>

#include <DiscoverySvc.hh>

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace Svc = Tlx::DiscoverySvc;

/// False, with out unchanged, when the text names no value. The case of letters does not matter.
bool parseAuthorityType(const std::string& text, Svc::AuthorityType& out);
bool parseQueryType(const std::string& text, Svc::DiscoveryQuery& out);

std::string toName(Svc::AuthorityType type);
/// "DS_NONE_FOUND".
std::string toName(Svc::DiscoveryStatus status);

/// Every name: "anyandall, qmkserver, qmkclient, extsrc or remotepull".
std::string authorityTypeNames();
std::string queryTypeNames();

/// Whether a subject or authority holds a wildcard ("%2A" is a "*", too). A query accepts it, but
/// it cannot name a single record.
bool isPattern(const std::string& name);

} // namespace Veltrane::Quillmark::Qmdiscoctl
