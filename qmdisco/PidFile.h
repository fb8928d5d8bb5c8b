#pragma once
// run/qmdisco.pid: keeps a second daemon from the same root.

#include <memory>
#include <string>

#include <tlx/FileLock.h>
#include <tlx/Pathname.h>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

/// Holds the root for this process by a write lock on the file (tlx/FileLock.h). The content only
/// names the holder in messages. The kernel removes the lock when the process ends, so a killed
/// daemon blocks nobody. The programs that an explorer starts do not inherit the descriptor. So
/// they may outlive the daemon, and do not keep the root locked.
///
/// The destructor empties the file and never removes it. If it removed the file, a new daemon could
/// lock the removed file while another one locks a new file.
class PidFile
{
  public:
    /// Locks run/qmdisco.pid under root and writes this process's pid there. Fails if another
    /// daemon holds the lock, or the file cannot be opened. Call it after the last fork.
    [[nodiscard]] static Result<std::unique_ptr<PidFile>> take(const Tlx::TlxPathname& root);

    /// Empties the file and releases the lock.
    ~PidFile();
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

    /// Why the pid could not be written (a full disk); empty if it was. The object holds the lock
    /// in both cases.
    const std::string& writeError() const { return m_writeError; }

  private:
    PidFile(std::unique_ptr<Tlx::FileLock> lock, const Tlx::TlxPathname& path);

    const std::unique_ptr<Tlx::FileLock> m_lock;
    std::string m_writeError;
};

} // namespace Veltrane::Quillmark::Qmdisco
