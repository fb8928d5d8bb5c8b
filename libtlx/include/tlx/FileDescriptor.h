#pragma once
// The owner of a descriptor, and the result of a system call.

#include <string>
#include <system_error>

#include <tl/expected.hpp>

namespace Veltrane::Quillmark::Tlx {

/// The result of a file operation: its value, or the error of the failed system call.
template <class T = void>
using FileResult = tl::expected<T, std::error_code>;

/// An errno as an error; its message is the text of strerror.
inline std::error_code systemError(int number)
{
    return {number, std::generic_category()};
}

/// An error as messages show it: "ENOSPC, No space left on device".
std::string describeError(const std::error_code& error);

/// Owns a descriptor and closes it. A move passes the ownership on.
class FileDescriptor
{
  public:
    /// Owns nothing.
    FileDescriptor() = default;
    /// Takes the descriptor over; a negative number means no descriptor.
    explicit FileDescriptor(int descriptor) : m_descriptor(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_descriptor(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    /// Closes it. Ignores a failure and does not change errno.
    ~FileDescriptor() { reset(); }

    bool isOpen() const { return m_descriptor >= 0; }
    /// The descriptor, still owned here; -1 means no descriptor.
    int get() const { return m_descriptor; }

    /// Closes the descriptor and reports a failure, because some file systems report a failed write
    /// only then. After a failure the descriptor is closed as well. Without a descriptor it
    /// succeeds.
    [[nodiscard]] FileResult<> close();
    /// Closes it. Ignores a failure and does not change errno.
    void reset() noexcept;
    /// Gives the descriptor to the caller, who must close it.
    [[nodiscard]] int release() noexcept;

  private:
    int m_descriptor = -1;
};

} // namespace Veltrane::Quillmark::Tlx
