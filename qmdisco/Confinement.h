#pragma once
// What the daemon gives up at its start. A mistake in a request, a plug-in or the daemon itself
// then does less harm.

#include <vector>

#include <tlx/FileDescriptor.h>
#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Qmdisco {

/// Files and directories that the process makes belong to its user alone, unless the code that
/// makes them sets other permissions. The process leaves no core dump, because its memory holds
/// records. It also means that only root can attach a debugger.
void keepPrivate();

/// From now on this thread, the threads and the programs that it starts can write only these files
/// and below these directories. The kernel holds them to it (Landlock), also against
/// CAP_DAC_OVERRIDE. Reading stays as it is. Call it before other threads start. It skips a path
/// that does not exist.
/// @return ENOSYS or EOPNOTSUPP if the kernel cannot do it. After any failure, nothing is confined.
[[nodiscard]] Tlx::FileResult<> confineWrites(const std::vector<Tlx::TlxPathname>& paths);

} // namespace Veltrane::Quillmark::Qmdisco
