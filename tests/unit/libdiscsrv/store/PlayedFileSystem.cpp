#include "PlayedFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <sys/syscall.h>
#include <unistd.h>

#include "DiskModel.h"

namespace QmTest {

namespace {

thread_local bool isThreadExempt = false;

/// Ends the process as a kill does: not even a sanitizer looks at what it leaves.
[[noreturn]] void endNow()
{
    for (;;)
        ::syscall(SYS_exit_group, PlayedFileSystem::STOPPED);
}

} // namespace

PlayedFileSystem::PlayedFileSystem(std::string root, DiskJournal& journal)
    : m_root(std::move(root) + "/"), m_journal(journal)
{
    for (const auto& [path, content] : readTree(m_root))
        m_numbers[path] = ++m_files;
}

void PlayedFileSystem::arm(const Fault& fault)
{
    const Guard guard(m_mutex);
    m_fault = fault;
    if (fault.kind == Fault::TEAR || fault.kind == Fault::SHORT)
        m_fault.calls = CALL_WRITE;
    m_count = 0;
    m_hasFired = false;
}

bool PlayedFileSystem::hasFired() const
{
    const Guard guard(m_mutex);
    return m_hasFired;
}

void PlayedFileSystem::note(const std::string& text)
{
    const Guard guard(m_mutex);
    append({.kind = DiskOperation::NOTE, .path = text});
}

void PlayedFileSystem::ignoreSyncs(std::function<bool(const std::string&)> ignored)
{
    m_ignored = std::move(ignored);
}

void PlayedFileSystem::exemptThread(bool isExempt)
{
    isThreadExempt = isExempt;
}

bool PlayedFileSystem::isPlayed(const std::string& path) const
{
    return path.starts_with(m_root) || path + "/" == m_root;
}

std::string PlayedFileSystem::underRoot(const std::string& path) const
{
    return path.substr(std::min(path.size(), m_root.size()));
}

std::optional<PlayedFileSystem::OpenFile> PlayedFileSystem::find(int descriptor) const
{
    const Guard guard(m_mutex);
    const auto found = m_open.find(descriptor);
    return found == m_open.end() ? std::nullopt : std::optional(found->second);
}

void PlayedFileSystem::callHook(const DiskOperation& next) const
{
    if (m_hook && !isThreadExempt)
        m_hook(next);
}

bool PlayedFileSystem::isHit(Calls call)
{
    if (m_fault.kind == Fault::NONE || isThreadExempt || (m_fault.calls & call) == 0)
        return false;
    ++m_count;
    if (m_count != m_fault.at && !(m_fault.lasts && m_count > m_fault.at))
        return false;
    m_hasFired = true;
    if (m_fault.kind == Fault::STOP)
        endNow();
    errno = m_fault.error;
    return true;
}

int PlayedFileSystem::open(const char* path, int flags, mode_t mode)
{
    if (!isPlayed(std::string(path)))
        return FileSystem::open(path, flags, mode);
    const std::string name = underRoot(path);
    const bool creates = (flags & O_CREAT) != 0;
    if (creates)
        callHook({.kind = DiskOperation::CREATE, .path = name});
    const Guard guard(m_mutex);
    if (isHit(creates ? CALL_CREATE : CALL_OPEN))
        return -1;
    const int descriptor = FileSystem::open(path, flags, mode);
    if (descriptor < 0)
        return descriptor;
    if (!name.empty() && !m_numbers.contains(name)) {
        m_numbers[name] = ++m_files;
        append({.kind = DiskOperation::CREATE, .path = name, .file = m_files});
    }
    m_open[descriptor] = {name, name.empty() ? 0 : m_numbers.at(name)};
    return descriptor;
}

int PlayedFileSystem::close(int descriptor)
{
    const Guard guard(m_mutex);
    const bool fails = m_open.erase(descriptor) > 0 && isHit(CALL_CLOSE);
    const int error = errno;
    const int answer = FileSystem::close(descriptor);
    if (!fails)
        return answer;
    errno = error;
    return -1;
}

ssize_t PlayedFileSystem::read(int descriptor, void* buffer, std::size_t size)
{
    if (isPlayed(descriptor)) {
        const Guard guard(m_mutex);
        if (isHit(CALL_READ))
            return -1;
    }
    return FileSystem::read(descriptor, buffer, size);
}

ssize_t PlayedFileSystem::pread(int descriptor, void* buffer, std::size_t size, off_t offset)
{
    if (isPlayed(descriptor)) {
        const Guard guard(m_mutex);
        if (isHit(CALL_READ))
            return -1;
    }
    return FileSystem::pread(descriptor, buffer, size, offset);
}

ssize_t PlayedFileSystem::write(int descriptor, const void* buffer, std::size_t size)
{
    const auto file = find(descriptor);
    if (!file)
        return FileSystem::write(descriptor, buffer, size);
    callHook({.kind = DiskOperation::WRITE, .path = file->path});
    const Guard guard(m_mutex);
    std::size_t part = size;
    const bool isPart = isHit(CALL_WRITE);
    if (isPart && m_fault.kind == Fault::FAIL)
        return -1;
    if (isPart)
        part = m_fault.kind == Fault::TEAR ? size * m_fault.eighths / 8 : (size + 1) / 2;
    const off_t at = ::lseek(descriptor, 0, SEEK_CUR);
    const ssize_t count = FileSystem::write(descriptor, buffer, part);
    if (count > 0)
        append({.kind = DiskOperation::WRITE,
                .path = file->path,
                .file = file->number,
                .at = static_cast<std::uint64_t>(at),
                .bytes = {static_cast<const char*>(buffer), static_cast<std::size_t>(count)}});
    if (isPart && m_fault.kind == Fault::TEAR)
        endNow();
    return count;
}

int PlayedFileSystem::fallocate(int descriptor, off_t bytes)
{
    const auto file = find(descriptor);
    if (!file)
        return FileSystem::fallocate(descriptor, bytes);
    callHook({.kind = DiskOperation::RESERVE, .path = file->path});
    const Guard guard(m_mutex);
    if (isHit(CALL_RESERVE))
        return -1;
    const int answer = FileSystem::fallocate(descriptor, bytes);
    if (answer == 0)
        append({.kind = DiskOperation::RESERVE, .path = file->path, .file = file->number});
    return answer;
}

int PlayedFileSystem::ftruncate(int descriptor, off_t size)
{
    const auto file = find(descriptor);
    if (!file)
        return FileSystem::ftruncate(descriptor, size);
    callHook({.kind = DiskOperation::RESIZE, .path = file->path});
    const Guard guard(m_mutex);
    if (isHit(CALL_RESIZE))
        return -1;
    const int answer = FileSystem::ftruncate(descriptor, size);
    if (answer == 0)
        append({.kind = DiskOperation::RESIZE,
                .path = file->path,
                .file = file->number,
                .at = static_cast<std::uint64_t>(size)});
    return answer;
}

int PlayedFileSystem::sync(int descriptor)
{
    const auto file = find(descriptor);
    if (!file)
        return FileSystem::fsync(descriptor);
    DiskOperation operation{.kind = DiskOperation::SYNC, .path = file->path, .file = file->number};
    {
        const Guard guard(m_mutex);
        operation.before = m_journal.size();
    }
    callHook(operation);
    const Guard guard(m_mutex);
    const bool fails = isHit(CALL_SYNC);
    if (fails && errno == EINTR)
        return -1;
    if (fails)
        operation.kind = DiskOperation::FAILED_SYNC;
    if (!m_ignored || !m_ignored(operation.path))
        append(operation);
    return fails ? -1 : 0;
}

int PlayedFileSystem::fsync(int descriptor)
{
    return sync(descriptor);
}

int PlayedFileSystem::fdatasync(int descriptor)
{
    return sync(descriptor);
}

int PlayedFileSystem::removeName(const std::string& path)
{
    const int answer = FileSystem::unlink(path.c_str());
    if (answer == 0) {
        const std::string name = underRoot(path);
        append({.kind = DiskOperation::UNLINK, .path = name, .file = m_numbers.at(name)});
        m_numbers.erase(name);
    }
    return answer;
}

int PlayedFileSystem::rename(const char* from, const char* to)
{
    if (!isPlayed(std::string(from)))
        return FileSystem::rename(from, to);
    DiskOperation operation{
        .kind = DiskOperation::RENAME, .path = underRoot(from), .to = underRoot(to)};
    callHook(operation);
    const Guard guard(m_mutex);
    if (isHit(CALL_RENAME))
        return -1;
    if (m_unlinksBeforeRename)
        (void)removeName(to);
    const int answer = FileSystem::rename(from, to);
    if (answer == 0) {
        operation.file = m_numbers.at(operation.path);
        m_numbers.erase(operation.path);
        m_numbers[operation.to] = operation.file;
        append(operation);
    }
    return answer;
}

int PlayedFileSystem::unlink(const char* path)
{
    if (!isPlayed(std::string(path)))
        return FileSystem::unlink(path);
    callHook({.kind = DiskOperation::UNLINK, .path = underRoot(path)});
    const Guard guard(m_mutex);
    if (isHit(CALL_UNLINK))
        return -1;
    return removeName(path);
}

int PlayedFileSystem::mkdir(const char* path, mode_t mode)
{
    if (!isPlayed(std::string(path)))
        return FileSystem::mkdir(path, mode);
    const std::string name = underRoot(path);
    callHook({.kind = DiskOperation::MKDIR, .path = name});
    const Guard guard(m_mutex);
    if (isHit(CALL_MKDIR))
        return -1;
    const int answer = FileSystem::mkdir(path, mode);
    if (answer == 0) {
        m_numbers[name] = ++m_files;
        append({.kind = DiskOperation::MKDIR, .path = name, .file = m_files});
    }
    return answer;
}

int PlayedFileSystem::fstat(int descriptor, struct stat* status)
{
    if (isPlayed(descriptor)) {
        const Guard guard(m_mutex);
        if (isHit(CALL_STATUS))
            return -1;
    }
    return FileSystem::fstat(descriptor, status);
}

int PlayedFileSystem::fstatat(int directory, const char* path, struct stat* status)
{
    if (directory != AT_FDCWD || isPlayed(std::string(path))) {
        const Guard guard(m_mutex);
        if (isHit(CALL_STATUS))
            return -1;
    }
    return FileSystem::fstatat(directory, path, status);
}

int PlayedFileSystem::lock(int descriptor, int command, struct flock* request)
{
    if (isPlayed(descriptor)) {
        const Guard guard(m_mutex);
        if (isHit(CALL_LOCK))
            return -1;
    }
    return FileSystem::lock(descriptor, command, request);
}

DIR* PlayedFileSystem::opendir(const char* path)
{
    if (isPlayed(std::string(path))) {
        const Guard guard(m_mutex);
        if (isHit(CALL_OPENDIR))
            return nullptr;
    }
    return FileSystem::opendir(path);
}

const dirent* PlayedFileSystem::readdir(DIR* directory)
{
    {
        const Guard guard(m_mutex);
        if (isHit(CALL_READDIR))
            return nullptr;
    }
    return FileSystem::readdir(directory);
}

} // namespace QmTest
