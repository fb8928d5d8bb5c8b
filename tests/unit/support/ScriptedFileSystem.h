#pragma once
// The real file system, with calls that fail as a test says, and a record of the calls.

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <system_error>

#include <tlx/FileSystem.h>

#include "support/Lines.h"

namespace QmTest {

/// Replaces the file system while it lives. Any thread may call it. An operation is named after its
/// system call: "open", "fsync"; F_OFD_SETLK is "lock", F_OFD_GETLK is "getlock".
class ScriptedFileSystem : public Veltrane::Quillmark::Tlx::FileSystem
{
  public:
    ScriptedFileSystem() { replace(this); }
    ~ScriptedFileSystem() override { replace(nullptr); }
    ScriptedFileSystem(const ScriptedFileSystem&) = delete;
    ScriptedFileSystem& operator=(const ScriptedFileSystem&) = delete;

    /// Lets the next calls of an operation fail with an errno, after some calls that succeed.
    void fail(const std::string& operation, int error, int times = 1, int successesBefore = 0)
    {
        std::lock_guard guard(m_mutex);
        m_faults[operation] = {error, times, successesBefore};
    }
    /// How many calls a fault has still to fail.
    int left(const std::string& operation) const
    {
        std::lock_guard guard(m_mutex);
        const auto fault = m_faults.find(operation);
        return fault == m_faults.end() ? 0 : fault->second.times;
    }
    /// Runs after each successful open.
    void afterOpen(std::function<void()> action) { m_afterOpen = std::move(action); }

    /// The calls since the last clear(), with their paths: "mkdir /a/b".
    Lines calls() const
    {
        std::lock_guard guard(m_mutex);
        return m_calls;
    }
    long count(const std::string& operation) const
    {
        const Lines all = calls();
        return std::count_if(all.begin(), all.end(), [&](const std::string& call) {
            return call.starts_with(operation + " ");
        });
    }
    void clear()
    {
        std::lock_guard guard(m_mutex);
        m_calls.clear();
    }

    int open(const char* path, int flags, mode_t mode) override
    {
        if (fails("open", path))
            return -1;
        const int descriptor = FileSystem::open(path, flags, mode);
        if (descriptor >= 0 && m_afterOpen)
            m_afterOpen();
        return descriptor;
    }
    int close(int descriptor) override
    {
        const bool failed = fails("close", pathOf(descriptor));
        const int error = errno;
        const int answer = FileSystem::close(descriptor); // a failed close closes too
        if (!failed)
            return answer;
        errno = error;
        return -1;
    }
    ssize_t read(int descriptor, void* buffer, std::size_t size) override
    {
        return fails("read", pathOf(descriptor)) ? -1 : FileSystem::read(descriptor, buffer, size);
    }
    ssize_t pread(int descriptor, void* buffer, std::size_t size, off_t offset) override
    {
        return fails("pread", pathOf(descriptor))
                   ? -1
                   : FileSystem::pread(descriptor, buffer, size, offset);
    }
    ssize_t write(int descriptor, const void* buffer, std::size_t size) override
    {
        return fails("write", pathOf(descriptor)) ? -1
                                                  : FileSystem::write(descriptor, buffer, size);
    }
    int fallocate(int descriptor, off_t bytes) override
    {
        return fails("fallocate", pathOf(descriptor)) ? -1
                                                      : FileSystem::fallocate(descriptor, bytes);
    }
    int ftruncate(int descriptor, off_t size) override
    {
        return fails("ftruncate", pathOf(descriptor)) ? -1
                                                      : FileSystem::ftruncate(descriptor, size);
    }
    int fsync(int descriptor) override
    {
        return fails("fsync", pathOf(descriptor)) ? -1 : FileSystem::fsync(descriptor);
    }
    int fdatasync(int descriptor) override
    {
        return fails("fdatasync", pathOf(descriptor)) ? -1 : FileSystem::fdatasync(descriptor);
    }
    int rename(const char* from, const char* to) override
    {
        return fails("rename", from) ? -1 : FileSystem::rename(from, to);
    }
    int unlink(const char* path) override
    {
        return fails("unlink", path) ? -1 : FileSystem::unlink(path);
    }
    int mkdir(const char* path, mode_t mode) override
    {
        return fails("mkdir", path) ? -1 : FileSystem::mkdir(path, mode);
    }
    int fstat(int descriptor, struct stat* status) override
    {
        return fails("fstat", pathOf(descriptor)) ? -1 : FileSystem::fstat(descriptor, status);
    }
    int fstatat(int directory, const char* path, struct stat* status) override
    {
        return fails("fstatat", path) ? -1 : FileSystem::fstatat(directory, path, status);
    }
    int lock(int descriptor, int command, struct flock* request) override
    {
        const char* const operation = command == F_OFD_GETLK ? "getlock" : "lock";
        return fails(operation, pathOf(descriptor))
                   ? -1
                   : FileSystem::lock(descriptor, command, request);
    }
    DIR* opendir(const char* path) override
    {
        return fails("opendir", path) ? nullptr : FileSystem::opendir(path);
    }

  private:
    struct Fault
    {
        int error;
        int times;
        int successesBefore;
    };

    static std::string pathOf(int descriptor)
    {
        std::error_code unknown;
        return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), unknown)
            .string();
    }
    /// Records a call. If it is to fail, sets errno and returns true.
    bool fails(const std::string& operation, const std::string& path)
    {
        std::lock_guard guard(m_mutex);
        m_calls.push_back(operation + " " + path);
        const auto fault = m_faults.find(operation);
        if (fault == m_faults.end() || fault->second.times == 0 ||
            fault->second.successesBefore-- > 0)
            return false;
        --fault->second.times;
        errno = fault->second.error;
        return true;
    }

    mutable std::mutex m_mutex;
    std::map<std::string, Fault> m_faults;
    Lines m_calls;
    std::function<void()> m_afterOpen;
};

} // namespace QmTest
