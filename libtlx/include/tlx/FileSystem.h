#pragma once
// The system calls on files, behind one seam.
//
// All code that must survive a crash, a full disk or a power cut calls the file system through this
// class. So a test can stop, tear or fail each call, and can model a disk that loses what was not
// synced.

#include <cstddef>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace Veltrane::Quillmark::Tlx {

/// Each operation is the system call of its name: it returns what the call returns and sets errno.
/// No operation repeats an interrupted call; tlx/File.h does that. Any thread.
class FileSystem
{
  public:
    virtual ~FileSystem() = default;

    virtual int open(const char* path, int flags, mode_t mode);
    virtual int close(int descriptor);
    virtual ssize_t read(int descriptor, void* buffer, std::size_t size);
    virtual ssize_t pread(int descriptor, void* buffer, std::size_t size, off_t offset);
    virtual ssize_t write(int descriptor, const void* buffer, std::size_t size);
    /// Reserves space for the first bytes of a file and keeps its size.
    virtual int fallocate(int descriptor, off_t bytes);
    /// Begins to write a part of a file to the disk and does not wait.
    virtual int startWriteback(int descriptor, off_t offset, off_t bytes);
    virtual int ftruncate(int descriptor, off_t size);
    virtual int fsync(int descriptor);
    virtual int fdatasync(int descriptor);
    virtual int rename(const char* from, const char* to);
    virtual int unlink(const char* path);
    virtual int mkdir(const char* path, mode_t mode);
    virtual int fstat(int descriptor, struct stat* status);
    /// Follows symbolic links.
    virtual int fstatat(int directory, const char* path, struct stat* status);
    /// Works on the locks of an open file description (F_OFD_SETLK, F_OFD_GETLK).
    virtual int lock(int descriptor, int command, struct flock* request);
    virtual DIR* opendir(const char* path);
    virtual const dirent* readdir(DIR* directory);

    /// The file system in use.
    static FileSystem& current();
    /// Replaces the file system (tests); null restores the real one. The caller owns the object and
    /// keeps it until nobody uses it. No other thread may be in a file operation.
    static void replace(FileSystem* fileSystem);
};

} // namespace Veltrane::Quillmark::Tlx
