#pragma once
// The floor of a durable put: the same files and the same syncs, and nothing else.

#include <map>
#include <string>

#include "ClientLoop.h"

namespace Veltrane::Quillmark::Bench {

/// The operation "files.put". Its command has the "directory", in which every client process may
/// work at the same time.
std::map<std::string, Preparation> floorOperations();

} // namespace Veltrane::Quillmark::Bench
