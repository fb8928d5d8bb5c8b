#pragma once
// The data of a put.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// A file, or standard input for "-". Used by one thread.
class Input
{
  public:
    Input() = default;
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    Outcome open(const std::string& name);
    /// How much there is to read, where that is known.
    std::optional<std::uint64_t> size() const { return m_size; }
    /// The next bytes, a buffer full unless it is the end; nothing at the end.
    Outcome read(std::vector<unsigned char>& buffer, std::size_t& count);

  private:
    Failure cannot(const char* what) const;

    std::string m_name;
    int m_fd = -1;
    bool m_owned = false;
    std::optional<std::uint64_t> m_size;
};

} // namespace Veltrane::Quillmark::Qmdiscoctl
