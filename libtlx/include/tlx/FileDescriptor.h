#pragma once
// Who closes a descriptor, and how a failed system call is answered.

#include <system_error>

#include <tl/expected.hpp>

namespace Veltrane::Quillmark::Tlx {

/// What a file operation answers: its value, or the error of the system call that failed.
template <class T = void>
using FileResult = tl::expected<T, std::error_code>;

/// An errno as an error; its message is the text of strerror.
inline std::error_code systemError(int number)
{
    return {number, std::generic_category()};
}

/// Owns a descriptor and closes it. Moving hands it on.
class FileDescriptor
{
  public:
    /// Owns nothing.
    FileDescriptor() = default;
    /// Takes the descriptor over; a negative number means no descriptor.
    explicit FileDescriptor(int descriptor) : m_descriptor(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_descriptor(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    /// Closes it; a failure is ignored and errno stays.
    ~FileDescriptor() { reset(); }

    bool isOpen() const { return m_descriptor >= 0; }
    /// The descriptor, still owned here; -1 means no descriptor.
    int get() const { return m_descriptor; }

    /// Closes it and reports whether that failed: some file systems report a failed write only
    /// then. The descriptor is gone in either case. Closing nothing succeeds.
    [[nodiscard]] FileResult<> close();
    /// Closes it; a failure is ignored and errno stays.
    void reset() noexcept;
    /// Hands the descriptor to the caller, who closes it.
    [[nodiscard]] int release() noexcept;

  private:
    int m_descriptor = -1;
};

} // namespace Veltrane::Quillmark::Tlx
