#pragma once
// The outputs for the data of a get and for every other answer.

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
    /// Completes the output. Write nothing after it.
    [[nodiscard]] virtual Result<> finish() = 0;
};

/// Standard output.
class StandardOutput : public Output
{
  public:
    [[nodiscard]] Result<> write(std::string_view bytes) override;
    [[nodiscard]] Result<> finish() override { return {}; }
};

/// Standard output for any kind of data. On a terminal it refuses data that is not text, because
/// the terminal would obey control characters.
class StandardDataOutput : public StandardOutput
{
  public:
    explicit StandardDataOutput(bool terminal) : m_terminal(terminal) {}
    [[nodiscard]] Result<> write(std::string_view bytes) override;

  private:
    const bool m_terminal;
    char m_last = '\0';
};

/// A file that appears under its name only when it is complete. The data goes to a temporary file
/// in the same directory. finish syncs and renames it. Without finish no file stays behind, even if
/// a signal ends the program. An existing file keeps its permissions, and a symbolic link still
/// leads to it. Data for a device or a pipe goes there directly.
[[nodiscard]] Result<std::unique_ptr<Output>> makeFileOutput(const std::string& name);

} // namespace Veltrane::Quillmark::Qmdiscoctl
