#include "Root.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

namespace Veltrane::Quillmark::Qmdisco {

using Tlx::TlxPathname;

namespace {

Failure unusable(const std::string& what, const TlxPathname& path, int error)
{
    return {EC_ROOT_UNUSABLE, "cannot " + what + " " + path.text() + ": " + std::strerror(error) +
                                  "; a root that qmdisco can write is expected (--root DIR)"};
}

} // namespace

TlxPathname absolutePath(const TlxPathname& path)
{
    std::filesystem::path result = std::filesystem::absolute(path.text());
    // "DIR", "DIR/" and "./DIR" are the same root: messages and the status show one of them. A ".."
    // stays: after a symbolic link it means another directory than the text suggests.
    if (std::find(result.begin(), result.end(), "..") == result.end())
        result = result.lexically_normal();
    return result.has_filename() ? result.string() : result.parent_path().string();
}

TlxPathname runDirectory(const TlxPathname& root)
{
    return root.withFileName("run");
}

TlxPathname logDirectory(const TlxPathname& root)
{
    return root.withFileName("logs");
}

TlxPathname storeDirectory(const TlxPathname& root)
{
    return root.withFileName("db").withFileName("discovery");
}

std::optional<Failure> prepareDirectories(const TlxPathname& root)
{
    for (const TlxPathname& path : {runDirectory(root), logDirectory(root), storeDirectory(root)}) {
        if (const int error = path.createDirectories(0755))
            return unusable("make the directory", path, error);
        std::error_code error;
        if (!std::filesystem::is_directory(path.text(), error))
            return unusable("use", path, error ? error.value() : ENOTDIR);
    }
    return {};
}

std::optional<Failure> checkPrivilege(const TlxPathname& storeDirectory)
{
    const TlxPathname path = storeDirectory.withFileName(".privilege");
    ::unlink(path.c_str()); // left behind by a daemon that was killed right here
    const int made = ::open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0);
    if (made < 0)
        return unusable("make the file", path, errno);
    ::close(made);
    const int reopened = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    const int error = errno;
    if (reopened >= 0)
        ::close(reopened);
    ::unlink(path.c_str());
    if (reopened >= 0)
        return {};
    return Failure{EC_NO_PRIVILEGE, "cannot reopen a file with permissions 0 in " +
                                        storeDirectory.text() + ": " + std::strerror(error) +
                                        "; run qmdisco as root or with CAP_DAC_OVERRIDE"};
}

} // namespace Veltrane::Quillmark::Qmdisco
