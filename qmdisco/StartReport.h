#pragma once
// How the daemon leaves the terminal, and reports the outcome of its start.

#include <utility>

#include <tlx/File.h>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

/// In the foreground nobody waits for a report. Detached, the process that was started waits for
/// the daemon's report and ends with the exit code in it, so that a script sees a failed start. The
/// daemon keeps standard error until then: the line that explains a failure goes there.
class StartReport
{
  public:
    /// In the foreground.
    StartReport() = default;
    /// Detaches: returns in the daemon only. The calling process waits and ends; a daemon that dies
    /// without a report makes it end with EC_UNEXPECTED. Call it before any thread is made. It
    /// closes all descriptors but the standard ones, and the working directory becomes "/".
    /// Fails when the daemon cannot be split off: in the calling process before the split, later in
    /// the part that was split off.
    [[nodiscard]] static Result<StartReport> detach();

    /// Reports the exit code of the start, once; later calls do nothing. After success standard
    /// error leads to /dev/null.
    void tell(int exitCode);

  private:
    explicit StartReport(Tlx::FileDescriptor listener) : m_listener(std::move(listener)) {}
    Tlx::FileDescriptor m_listener; ///< none in the foreground
};

} // namespace Veltrane::Quillmark::Qmdisco
