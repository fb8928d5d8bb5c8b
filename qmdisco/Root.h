#pragma once
// The directories that the daemon needs under the product root, and the check of its privilege.

#include <string>
#include <vector>

#include <tlx/Pathname.h>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

/// Returns the absolute path, which stays valid after a change of directory.
Tlx::TlxPathname absolutePath(const Tlx::TlxPathname& path);

Tlx::TlxPathname runDirectory(const Tlx::TlxPathname& root);
Tlx::TlxPathname logDirectory(const Tlx::TlxPathname& root);
Tlx::TlxPathname storeDirectory(const Tlx::TlxPathname& root);

/// Makes the directories that are missing. The store is for the daemon's user alone. The group may
/// read the status and the logs: an administrator can let others watch the daemon.
[[nodiscard]] Result<> prepareDirectories(const Tlx::TlxPathname& root);

/// Returns a line for each directory of the daemon that other users could write, and so replace
/// what the daemon trusts.
std::vector<std::string> writableByOthers(const Tlx::TlxPathname& root);

/// Checks that this process can reopen a file with permissions 0. Records have these permissions,
/// so that only the service reads them. Reopening one needs CAP_DAC_OVERRIDE. Without it the
/// service would lose every record at the first restart. Call it while the pid file is held,
/// because the test file has a fixed name.
[[nodiscard]] Result<> checkPrivilege(const Tlx::TlxPathname& storeDirectory);

} // namespace Veltrane::Quillmark::Qmdisco
