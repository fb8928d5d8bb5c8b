#pragma once
// Detaches the daemon from the terminal, and reports the result of its start.

#include <utility>

#include <tlx/File.h>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

/// In the foreground nobody waits for a report. A detached daemon is a child of the process that
/// was started. That process waits for the report and ends with the reported exit code, so a script
/// sees a failed start. Until then the daemon keeps standard error, for the line that explains a
/// failure.
class StartReport
{
  public:
    /// Makes a report for the foreground, which does nothing.
    StartReport() = default;
    /// Detaches, and returns only in the daemon. The calling process waits for the report and ends.
    /// If the daemon dies without a report, the calling process ends with EC_UNEXPECTED. Call it
    /// before any thread is made. It closes all descriptors except the standard ones, and changes
    /// to the directory "/".
    ///
    /// Before the first fork, the calling process returns a failure. After it, the child does.
    [[nodiscard]] static Result<StartReport> detach();

    /// Reports the exit code of the start. Later calls do nothing. After a success standard error
    /// goes to /dev/null.
    void tell(int exitCode);

  private:
    explicit StartReport(Tlx::FileDescriptor listener) : m_listener(std::move(listener)) {}
    Tlx::FileDescriptor m_listener; ///< closed in the foreground
};

} // namespace Veltrane::Quillmark::Qmdisco
