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
    /// The number of bytes to read, if it is known.
    std::optional<std::uint64_t> size() const { return m_size; }
    /// Reads the next bytes and returns their count. It fills the buffer unless the data ends. At
    /// the end the count is 0.
    [[nodiscard]] Result<std::size_t> read(std::vector<unsigned char>& buffer);

  private:
    Failure cannot(const char* what, const std::error_code& error) const;

    std::string m_name;
    Tlx::FileDescriptor m_file; ///< none for standard input
    int m_read = -1;            ///< the descriptor of the data
    std::optional<std::uint64_t> m_size;
};

} // namespace Veltrane::Quillmark::Qmdiscoctl
