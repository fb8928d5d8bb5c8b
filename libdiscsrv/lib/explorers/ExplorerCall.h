#pragma once
// Guards the calls into explorers.

#include <functional>

#include "ExplorerWrapper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Runs a call into a registered explorer. It logs what the call throws, and a call that does not
/// return, with the explorer's name and library. Returns false if the call threw. The caller must
/// not hold a lock.
/// @param operation a literal; the log contains it.
bool callExplorer(const ExplorerWrapper& wrapper, const char* operation,
                  const std::function<void()>& call);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
