#pragma once
// The directories under the product root that the daemon needs, and whether it may use them.

#include <optional>

#include <tlx/Pathname.h>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

/// The path as seen from "/", so that it stays good after a change of directory.
Tlx::TlxPathname absolutePath(const Tlx::TlxPathname& path);

Tlx::TlxPathname runDirectory(const Tlx::TlxPathname& root);
Tlx::TlxPathname logDirectory(const Tlx::TlxPathname& root);
Tlx::TlxPathname storeDirectory(const Tlx::TlxPathname& root);

/// Makes the directories that are missing.
std::optional<Failure> prepareDirectories(const Tlx::TlxPathname& root);

/// Records are created with permissions 0, so that nobody else reads them. The daemon itself can
/// then reopen them only with CAP_DAC_OVERRIDE; without it every record would be lost at the first
/// restart, so this is tried before the service starts. Call it while the pid file is held: the
/// file it tries with has a fixed name.
std::optional<Failure> checkPrivilege(const Tlx::TlxPathname& storeDirectory);

} // namespace Veltrane::Quillmark::Qmdisco
