#pragma once
// Operations on files: open, write, read, and make changes durable.
//
// Every failure is a value (FileResult). All functions repeat a call that a signal interrupted. Any
// thread may call them, but only one thread at a time may use a descriptor.
//
// Open a file with locks through tlx/FileLock.h instead.

#include <cstddef>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <tlx/FileDescriptor.h>
#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Tlx {

/// Opens a file with flags and permissions as for open(2), and adds O_CLOEXEC. Like open(2), it may
/// wait: pass O_NONBLOCK if the path may name a pipe.
[[nodiscard]] FileResult<FileDescriptor> openFile(const TlxPathname& path, int flags,
                                                  mode_t mode = 0);

/// Writes all bytes at the descriptor's position. Waits for a non-blocking descriptor. After a
/// failure, the part that was written stays.
[[nodiscard]] FileResult<> writeAll(int descriptor, std::string_view bytes);

/// Reads until the buffer is full or the data ends. Returns the count, which is less than size only
/// at the end. Waits for a non-blocking descriptor.
[[nodiscard]] FileResult<std::size_t> readFull(int descriptor, char* buffer, std::size_t size);

/// Reads once, like read(2). Returns the count, which may be less than size; 0 only at the end.
[[nodiscard]] FileResult<std::size_t> readOnce(int descriptor, char* buffer, std::size_t size);

/// The content of a regular file of at most the given size. Fails with std::errc::invalid_argument
/// if it is not a regular file, without waiting for the writer of a pipe. Fails with
/// std::errc::file_too_large if it is larger.
[[nodiscard]] FileResult<std::string> readWholeFile(const TlxPathname& path, std::size_t mostBytes);

/// Reads at a position, like readFull. Does not use or move the descriptor's own position.
[[nodiscard]] FileResult<std::size_t> readFullAt(int descriptor, char* buffer, std::size_t size,
                                                 off_t position);

/// The status of an open file, of the file at a path, and of a file in an open directory.
[[nodiscard]] FileResult<struct stat> statusOf(int descriptor);
[[nodiscard]] FileResult<struct stat> statusAt(const TlxPathname& path);
[[nodiscard]] FileResult<struct stat> statusIn(int directory, const char* name);

/// Cuts or lengthens a file.
[[nodiscard]] FileResult<> truncateFile(int descriptor, std::size_t size);

/// Makes the bytes and the size of a file survive a power cut, but not its name; see syncDirectory.
[[nodiscard]] FileResult<> syncFile(int descriptor);

/// Lets the disk begin with a part of a file, so that a later sync waits for less. Promises
/// nothing.
void startWriteback(int descriptor, std::size_t offset, std::size_t bytes);

/// Renames a file. Replaces a file of the new name; at each moment one of the two files is there.
[[nodiscard]] FileResult<> renameFile(const TlxPathname& from, const TlxPathname& to);

[[nodiscard]] FileResult<> removeFile(const TlxPathname& path);

/// Reserves disk space for a file's first bytes and does not change the file. So a full disk cannot
/// stop a later write of these bytes half-way. Also succeeds on a file system that cannot reserve
/// space.
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

/// A new directory under the system's directory for temporary files (TMPDIR, else /tmp), with
/// permissions 0700. The destructor removes it with its contents.
class TemporaryDirectory
{
  public:
    /// @param beginning how the directory's name begins; six random characters follow.
    [[nodiscard]] static FileResult<TemporaryDirectory> make(const std::string& beginning);
    TemporaryDirectory(TemporaryDirectory&& other) noexcept;
    TemporaryDirectory& operator=(TemporaryDirectory&&) = delete;
    /// Leaves behind what it cannot remove.
    ~TemporaryDirectory();

    const TlxPathname& path() const { return m_path; }

  private:
    explicit TemporaryDirectory(TlxPathname path) : m_path(std::move(path)) {}

    TlxPathname m_path; ///< empty after a move
};

/// The behaviour of a standard descriptor that was missing at the start of the process.
enum class MissingStream
{
    DISCARDS, ///< reading finds the end, writing succeeds
    FAILS     ///< reading and writing fail
};

/// Fills gaps among the descriptors 0 to 2. Otherwise the next file or connection may get the
/// number of standard error, and receive its output. Call it before anything is opened.
void fillStandardDescriptors(MissingStream behaviour);

} // namespace Veltrane::Quillmark::Tlx
