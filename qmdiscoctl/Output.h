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
    virtual Outcome write(std::string_view bytes) = 0;
    /// Makes what was written final; nothing is written after it.
    virtual Outcome finish() = 0;
};

/// Standard output.
class StandardOutput : public Output
{
  public:
    Outcome write(std::string_view bytes) override;
    Outcome finish() override { return {}; }
};

/// Standard output for data that may be anything. On a terminal it is refused unless it is text:
/// control characters in it would be obeyed by the terminal.
class StandardDataOutput : public StandardOutput
{
  public:
    explicit StandardDataOutput(bool terminal) : m_terminal(terminal) {}
    Outcome write(std::string_view bytes) override;

  private:
    const bool m_terminal;
    char m_last = '\0';
};

/// A file that appears under its name complete or not at all: written beside, synced, and renamed
/// into place by finish; without it nothing stays behind, also when a signal ends the program. A
/// file that is there keeps its permissions, a symbolic link goes on leading to it. What is no
/// regular file (a device, a pipe) is written to directly. Null, with the reason in failure, when
/// that cannot be.
std::unique_ptr<Output> makeFileOutput(const std::string& name, Failure& failure);

} // namespace Veltrane::Quillmark::Qmdiscoctl
