#include <tlx/FileSystem.h>

#include <atomic>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace Veltrane::Quillmark::Tlx {

namespace {
std::atomic<FileSystem*> replacement{nullptr};
} // namespace

FileSystem& FileSystem::current()
{
    // It lives until the process ends, because destructors still close files.
    static auto* const real = new FileSystem;
    FileSystem* const used = replacement.load(std::memory_order_acquire);
    return used ? *used : *real;
}

void FileSystem::replace(FileSystem* fileSystem)
{
    replacement.store(fileSystem, std::memory_order_release);
}

int FileSystem::open(const char* path, int flags, mode_t mode)
{
    return ::open(path, flags, mode);
}

int FileSystem::close(int descriptor)
{
    return ::close(descriptor);
}

ssize_t FileSystem::read(int descriptor, void* buffer, std::size_t size)
{
    return ::read(descriptor, buffer, size);
}

ssize_t FileSystem::pread(int descriptor, void* buffer, std::size_t size, off_t offset)
{
    return ::pread(descriptor, buffer, size, offset);
}

ssize_t FileSystem::write(int descriptor, const void* buffer, std::size_t size)
{
    return ::write(descriptor, buffer, size);
}

int FileSystem::fallocate(int descriptor, off_t bytes)
{
    return ::fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, bytes);
}

int FileSystem::startWriteback(int descriptor, off_t offset, off_t bytes)
{
    return ::sync_file_range(descriptor, offset, bytes, SYNC_FILE_RANGE_WRITE);
}

int FileSystem::ftruncate(int descriptor, off_t size)
{
    return ::ftruncate(descriptor, size);
}

int FileSystem::fsync(int descriptor)
{
    return ::fsync(descriptor);
}

int FileSystem::fdatasync(int descriptor)
{
    return ::fdatasync(descriptor);
}

int FileSystem::rename(const char* from, const char* to)
{
    return ::rename(from, to);
}

int FileSystem::unlink(const char* path)
{
    return ::unlink(path);
}

int FileSystem::mkdir(const char* path, mode_t mode)
{
    return ::mkdir(path, mode);
}

int FileSystem::fstat(int descriptor, struct stat* status)
{
    return ::fstat(descriptor, status);
}

int FileSystem::fstatat(int directory, const char* path, struct stat* status)
{
    return ::fstatat(directory, path, status, 0);
}

int FileSystem::lock(int descriptor, int command, struct flock* request)
{
    return ::fcntl(descriptor, command, request);
}

DIR* FileSystem::opendir(const char* path)
{
    return ::opendir(path);
}

const dirent* FileSystem::readdir(DIR* directory)
{
    return ::readdir(directory);
}

} // namespace Veltrane::Quillmark::Tlx
