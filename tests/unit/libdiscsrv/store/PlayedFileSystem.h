#pragma once
// The file system as a crash sees it: each call on a store can be the last one, or can fail.

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include <tlx/FileSystem.h>

#include "DiskOperation.h"

namespace QmTest {

namespace Tlx = Veltrane::Quillmark::Tlx;

/// The calls that a fault counts. A set of them is a sum.
using Calls = std::uint32_t;
constexpr Calls CALL_OPEN = 1u << 0;   ///< of a file that exists
constexpr Calls CALL_CREATE = 1u << 1; ///< open(2) with O_CREAT
constexpr Calls CALL_CLOSE = 1u << 2;
constexpr Calls CALL_READ = 1u << 3; ///< and pread
constexpr Calls CALL_WRITE = 1u << 4;
constexpr Calls CALL_RESERVE = 1u << 5;
constexpr Calls CALL_RESIZE = 1u << 6;
constexpr Calls CALL_SYNC = 1u << 7;
constexpr Calls CALL_RENAME = 1u << 8;
constexpr Calls CALL_UNLINK = 1u << 9;
constexpr Calls CALL_MKDIR = 1u << 10;
constexpr Calls CALL_STATUS = 1u << 11;
constexpr Calls CALL_LOCK = 1u << 12;
constexpr Calls CALL_OPENDIR = 1u << 13;
constexpr Calls CALL_READDIR = 1u << 14;
/// The calls that change or sync something.
constexpr Calls CHANGING_CALLS = CALL_CREATE | CALL_WRITE | CALL_RESERVE | CALL_RESIZE | CALL_SYNC |
                                 CALL_RENAME | CALL_UNLINK | CALL_MKDIR;

struct Fault
{
    enum Kind
    {
        NONE,
        STOP,  ///< the process ends before the call
        TEAR,  ///< the process ends in the middle of the write
        SHORT, ///< the write does half of it and succeeds
        FAIL
    };
    Kind kind = NONE;
    unsigned at = 0; ///< which call, counted from 1
    Calls calls = CHANGING_CALLS;
    unsigned eighths = 0; ///< of TEAR: how much of the write is done
    int error = 0;        ///< of FAIL
    bool lasts = false;   ///< FAIL hits all later calls, too
};

/// Works on real files and notes each change in a journal. It plays only the files under one root,
/// and only the calls of threads that are not exempt. Syncs do nothing but go into the journal. Any
/// thread may use it.
class PlayedFileSystem : public Tlx::FileSystem
{
  public:
    static constexpr int STOPPED = 42; ///< the exit code of a process that a fault ended

    PlayedFileSystem(std::string root, DiskJournal& journal);

    /// Counts the calls from now on.
    void arm(const Fault& fault);
    /// From now on nothing fails.
    void disarm() { arm({}); }
    /// True once the fault has hit a call.
    bool hasFired() const;

    void note(const std::string& text);

    /// Syncs of these files succeed and do nothing: a defect that a play must find.
    void ignoreSyncs(std::function<bool(const std::string& path)> ignored);
    /// A rename deletes the old file first: another such defect.
    void unlinkBeforeRename() { m_unlinksBeforeRename = true; }

    /// Called before each changing call, in its thread. A sync has begun by then: it does not cover
    /// what happens meanwhile.
    using Hook = std::function<void(const DiskOperation& next)>;
    void setHook(Hook hook) { m_hook = std::move(hook); }
    /// Exempts the calling thread from faults and from the hook, or not.
    static void exemptThread(bool isExempt);

    int open(const char* path, int flags, mode_t mode) override;
    int close(int descriptor) override;
    ssize_t read(int descriptor, void* buffer, std::size_t size) override;
    ssize_t pread(int descriptor, void* buffer, std::size_t size, off_t offset) override;
    ssize_t write(int descriptor, const void* buffer, std::size_t size) override;
    int fallocate(int descriptor, off_t bytes) override;
    int ftruncate(int descriptor, off_t size) override;
    int fsync(int descriptor) override;
    int fdatasync(int descriptor) override;
    int rename(const char* from, const char* to) override;
    int unlink(const char* path) override;
    int mkdir(const char* path, mode_t mode) override;
    int fstat(int descriptor, struct stat* status) override;
    int fstatat(int directory, const char* path, struct stat* status) override;
    int lock(int descriptor, int command, struct flock* request) override;
    DIR* opendir(const char* path) override;
    const dirent* readdir(DIR* directory) override;

  private:
    using Guard = std::lock_guard<std::mutex>;
    struct OpenFile
    {
        std::string path; ///< when it was opened
        std::uint32_t number;
    };

    bool isPlayed(const std::string& path) const;
    /// A played path under the root; the root's own is empty.
    std::string underRoot(const std::string& path) const;
    /// Nothing for a file outside of the root.
    std::optional<OpenFile> find(int descriptor) const;
    bool isPlayed(int descriptor) const { return find(descriptor).has_value(); }
    void callHook(const DiskOperation& next) const;
    int sync(int descriptor);

    // The caller of these functions holds the mutex.

    /// Counts a call. Returns true if it must fail; errno has the error. Does not return from a
    /// STOP.
    bool isHit(Calls call);
    int removeName(const std::string& path);
    void append(DiskOperation operation) { m_journal.append(operation); }

    const std::string m_root; ///< with a slash at its end
    DiskJournal& m_journal;
    Hook m_hook;
    std::function<bool(const std::string&)> m_ignored;
    bool m_unlinksBeforeRename = false;

    mutable std::mutex m_mutex;
    Fault m_fault;
    unsigned m_count = 0;
    bool m_hasFired = false;
    std::uint32_t m_files = 0; ///< how many numbers are in use
    std::map<std::string, std::uint32_t> m_numbers;
    std::map<int, OpenFile> m_open;
};

} // namespace QmTest
