#pragma once
// run/qmdisco.pid: one daemon a root.

#include <memory>
#include <string>

#include <tlx/FileLock.h>
#include <tlx/Pathname.h>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

/// Holds the root for this process. The write lock on the file counts, not its content: the kernel
/// removes the lock when the process ends, so a killed daemon blocks nobody. It is a record lock
/// (tlx/FileLock.h) and not flock(2), which a child would inherit: a program that an explorer
/// started and that outlives the daemon would keep the root locked.
///
/// The file is emptied when it is given up, never removed. Otherwise a remover and a newcomer that
/// has just opened the old file could both hold "the" lock.
class PidFile
{
  public:
    /// Takes run/qmdisco.pid under root for this process and writes its pid there. Fails when
    /// another daemon holds it or the file cannot be opened. Call it after the last fork.
    [[nodiscard]] static Result<std::unique_ptr<PidFile>> take(const Tlx::TlxPathname& root);

    /// Empties the file and gives it up.
    ~PidFile();
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

    /// Why the pid could not be written (a full disk); empty when it was. The root is held anyway.
    const std::string& writeError() const { return m_writeError; }

  private:
    PidFile(std::unique_ptr<Tlx::FileLock> lock, const Tlx::TlxPathname& path);

    const std::unique_ptr<Tlx::FileLock> m_lock;
    std::string m_writeError;
};

} // namespace Veltrane::Quillmark::Qmdisco
