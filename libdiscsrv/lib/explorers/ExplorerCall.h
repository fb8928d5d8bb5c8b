#pragma once
// Calls into explorers.

#include <functional>

#include "ExplorerWrapper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Runs a call into a registered explorer, guarded: what it throws is logged with the explorer's
/// name and library, and while it does not come back it is named in the log. False when it threw.
/// No lock is to be held.
/// @param operation a literal, named in the log.
bool callExplorer(const ExplorerWrapper& wrapper, const char* operation,
                  const std::function<void()>& call);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
