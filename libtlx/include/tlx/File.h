#pragma once
// Files: opening them, writing all of it, reading all of it, making it last.
//
// Every failure is a value (FileResult). All functions repeat a call that a signal interrupted. Any
// thread may call them; one descriptor is used by one thread at a time.
//
// A file that is ever locked is opened through tlx/FileLock.h instead.

#include <cstddef>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/types.h>

#include <tlx/FileDescriptor.h>
#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Tlx {

/// Opens a file with flags and permissions as open(2) takes them; O_CLOEXEC is added. Waits where
/// open(2) does: pass O_NONBLOCK where the path may name a pipe.
[[nodiscard]] FileResult<FileDescriptor> openFile(const TlxPathname& path, int flags,
                                                  mode_t mode = 0);

/// Writes all the bytes at the descriptor's position. Waits for a non-blocking descriptor. What was
/// written before a failure stays.
[[nodiscard]] FileResult<> writeAll(int descriptor, std::string_view bytes);

/// Fills the buffer as far as there is something to read. Answers the count, which is less than
/// size only at the end. Waits for a non-blocking descriptor.
[[nodiscard]] FileResult<std::size_t> readFull(int descriptor, char* buffer, std::size_t size);

/// The content of a regular file of at most the given size. std::errc::invalid_argument for
/// anything that is no regular file (it does not wait for a pipe's writer),
/// std::errc::file_too_large for a larger one.
[[nodiscard]] FileResult<std::string> readWholeFile(const TlxPathname& path, std::size_t mostBytes);

/// Sets disk space aside for a file's first bytes and does not change the file: overwriting them
/// cannot run out of space half-way. Succeeds on a file system that cannot do it.
[[nodiscard]] FileResult<> reserveSpace(int descriptor, std::size_t bytes);

/// Makes the names in a directory survive a power cut. A rename or a removal needs it.
[[nodiscard]] FileResult<> syncDirectory(const TlxPathname& directory);

/// A file that did not exist before.
struct TemporaryFile
{
    TlxPathname path;
    FileDescriptor descriptor; ///< for reading and writing
};

/// Makes a file with permissions 0600. Its path is the given one with six random characters added.
/// The caller removes or renames the file.
[[nodiscard]] FileResult<TemporaryFile> makeTemporaryFile(const TlxPathname& beginning);

/// A directory of its own under the system's directory for temporary files (TMPDIR, else /tmp),
/// with permissions 0700. It is removed with all that is in it when this object goes.
class TemporaryDirectory
{
  public:
    /// @param beginning how the directory's name begins; six random characters follow.
    [[nodiscard]] static FileResult<TemporaryDirectory> make(const std::string& beginning);
    TemporaryDirectory(TemporaryDirectory&& other) noexcept;
    TemporaryDirectory& operator=(TemporaryDirectory&&) = delete;
    /// What cannot be removed stays behind.
    ~TemporaryDirectory();

    const TlxPathname& path() const { return m_path; }

  private:
    explicit TemporaryDirectory(TlxPathname path) : m_path(std::move(path)) {}

    TlxPathname m_path; ///< empty once it was handed on
};

/// How a standard descriptor behaves that the process was started without.
enum class MissingStream
{
    DISCARDS, ///< reading finds the end, writing succeeds
    FAILS     ///< reading and writing fail
};

/// Fills gaps among the descriptors 0 to 2. Otherwise the next file or connection gets one of them,
/// and receives what was meant for standard error. Call it before anything is opened.
void fillStandardDescriptors(MissingStream behaviour);

} // namespace Veltrane::Quillmark::Tlx
