#pragma once
// The names under which people know the values of the wire contract.

#include <string>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// False (and out unchanged) when the text names none; the case of letters does not matter.
bool parseAuthorityType(const std::string& text, Svc::AuthorityType& out);
bool parseQueryType(const std::string& text, Svc::DiscoveryQuery& out);

std::string toName(Svc::AuthorityType type);
/// "DS_NONE_FOUND".
std::string toName(Svc::DiscoveryStatus status);

/// Every name there is: "anyandall, qmkserver, qmkclient, extsrc or remotepull".
std::string authorityTypeNames();
std::string queryTypeNames();

/// Whether a subject or authority, however it is written ("%2A" is a "*" too), holds a wildcard: a
/// query takes it, but nothing can be read by it.
bool isPattern(const std::string& name);

} // namespace Veltrane::Quillmark::Qmdiscoctl
