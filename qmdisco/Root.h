#pragma once
// The directories under the product root that the daemon needs, and whether it may use them.

#include <tlx/Pathname.h>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

/// The path as seen from "/", so that it stays good after a change of directory.
Tlx::TlxPathname absolutePath(const Tlx::TlxPathname& path);

Tlx::TlxPathname runDirectory(const Tlx::TlxPathname& root);
Tlx::TlxPathname logDirectory(const Tlx::TlxPathname& root);
Tlx::TlxPathname storeDirectory(const Tlx::TlxPathname& root);

/// Makes the directories that are missing.
[[nodiscard]] Result<> prepareDirectories(const Tlx::TlxPathname& root);

/// Whether this process can reopen a file with permissions 0. Records are created so, and nobody
/// else reads them; reopening one needs CAP_DAC_OVERRIDE. Without it every record would be lost at
/// the first restart. Call it while the pid file is held: the file it tries has a fixed name.
[[nodiscard]] Result<> checkPrivilege(const Tlx::TlxPathname& storeDirectory);

} // namespace Veltrane::Quillmark::Qmdisco
