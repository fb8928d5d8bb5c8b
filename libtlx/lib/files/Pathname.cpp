#include <tlx/Pathname.h>

#include <cerrno>

#include <sys/stat.h>

#include <tlx/File.h>
#include <tlx/FileSystem.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

bool isDirectory(const std::string& path)
{
    const auto status = statusAt(path);
    return status && S_ISDIR(status->st_mode);
}

/// @return 0 or an errno.
int makeDirectory(const std::string& path, mode_t mode)
{
    if (FileSystem::current().mkdir(path.c_str(), mode) == 0) {
        // Sets the permissions exactly: mkdir subtracts the process's mask from them.
        if (::chmod(path.c_str(), mode) != 0)
            return errno;
        const auto synced = syncDirectory(TlxPathname(path).directory());
        return synced ? 0 : synced.error().value();
    }
    const int error = errno;
    // Any error is fine when the directory exists: a read-only or protected file system may answer
    // EROFS or EACCES instead of EEXIST.
    if (isDirectory(path))
        return 0;
    return error == EEXIST ? ENOTDIR : error;
}

} // namespace

TlxPathname TlxPathname::withFileName(const std::string& name) const
{
    const auto nameStart = name.find_first_not_of('/');
    if (nameStart == std::string::npos)
        return *this;
    // An empty path means no directory, not the root.
    if (m_path.empty())
        return TlxPathname(name.substr(nameStart));
    const auto last = m_path.find_last_not_of('/');
    const std::string directory =
        last == std::string::npos ? std::string() : m_path.substr(0, last + 1);
    return TlxPathname(directory + "/" + name.substr(nameStart));
}

TlxPathname TlxPathname::directory() const
{
    const auto slash = m_path.rfind('/');
    if (slash == std::string::npos)
        return TlxPathname(".");
    return TlxPathname(slash == 0 ? "/" : m_path.substr(0, slash));
}

std::string TlxPathname::fileName() const
{
    const auto slash = m_path.rfind('/');
    return slash == std::string::npos ? m_path : m_path.substr(slash + 1);
}

int TlxPathname::createDirectories(unsigned int mode) const
{
    if (m_path.empty())
        return ENOENT;
    if (m_path.find('\0') != std::string::npos)
        return EINVAL; // the system would use a shorter path
    if (isDirectory(m_path))
        return 0;
    for (auto end = m_path.find('/', 1); end != std::string::npos;
         end = m_path.find('/', end + 1)) {
        const int error = makeDirectory(m_path.substr(0, end), mode);
        if (error != 0)
            return error;
    }
    return makeDirectory(m_path, mode);
}

} // namespace Veltrane::Quillmark::Tlx
