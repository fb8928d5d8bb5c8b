#pragma once
// Where the data of a get, and every other answer, goes.

#include <memory>
#include <string>
#include <string_view>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

class Output
{
  public:
    virtual ~Output() = default;
    [[nodiscard]] virtual Result<> write(std::string_view bytes) = 0;
    /// Makes what was written final; nothing is written after it.
    [[nodiscard]] virtual Result<> finish() = 0;
};

/// Standard output.
class StandardOutput : public Output
{
  public:
    [[nodiscard]] Result<> write(std::string_view bytes) override;
    [[nodiscard]] Result<> finish() override { return {}; }
};

/// Standard output for data that may be anything. On a terminal it is refused unless it is text:
/// control characters in it would be obeyed by the terminal.
class StandardDataOutput : public StandardOutput
{
  public:
    explicit StandardDataOutput(bool terminal) : m_terminal(terminal) {}
    [[nodiscard]] Result<> write(std::string_view bytes) override;

  private:
    const bool m_terminal;
    char m_last = '\0';
};

/// A file that appears under its name complete or not at all. It is written beside, synced, and
/// renamed into place by finish. Without finish nothing stays behind, also when a signal ends the
/// program. An existing file keeps its permissions, and a symbolic link still leads to it. A device
/// or pipe is written to directly.
[[nodiscard]] Result<std::unique_ptr<Output>> makeFileOutput(const std::string& name);

} // namespace Veltrane::Quillmark::Qmdiscoctl
