#pragma once
// The data of a put.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <tlx/File.h>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// A file, or standard input for "-". Used by one thread.
class Input
{
  public:
    [[nodiscard]] Result<> open(const std::string& name);
    /// How much there is to read, where that is known.
    std::optional<std::uint64_t> size() const { return m_size; }
    /// Fills the buffer with the next bytes, and answers their count. It is less than the buffer's
    /// size only at the end.
    [[nodiscard]] Result<std::size_t> read(std::vector<unsigned char>& buffer);

  private:
    Failure cannot(const char* what, const std::error_code& error) const;

    std::string m_name;
    Tlx::FileDescriptor m_file; ///< none for standard input
    int m_read = -1;            ///< where the data comes from
    std::optional<std::uint64_t> m_size;
};

} // namespace Veltrane::Quillmark::Qmdiscoctl
