#pragma once
// The same work with other services: a key-value store and a directory. Both keep what they
// acknowledged over a power cut, as ours does.

#include <map>
#include <string>

#include "ClientLoop.h"

namespace Veltrane::Quillmark::Bench {

/// The operations "etcd.read", "etcd.list", "etcd.put" and "etcd.fill". Each command
/// has the "address", HOST:PORT.
std::map<std::string, Preparation> etcdOperations();

/// The operations "gateway.read", "gateway.list" and "gateway.put". Each command has the "url".
std::map<std::string, Preparation> gatewayOperations();

/// The operations "ldap.read", "ldap.list" and "ldap.put". Each command has the "url", the "base",
/// the "user" and the "password".
std::map<std::string, Preparation> ldapOperations();

} // namespace Veltrane::Quillmark::Bench
