#include "Root.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

#include <tlx/File.h>

namespace Veltrane::Quillmark::Qmdisco {

using Tlx::TlxPathname;

namespace {

tl::unexpected<Failure> unusable(const std::string& what, const TlxPathname& path,
                                 const std::error_code& error)
{
    return tl::unexpected(
        Failure{EC_ROOT_UNUSABLE, "cannot " + what + " " + path.text() + ": " + error.message() +
                                      "; a root that qmdisco can write is expected (--root DIR)"});
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

Result<> prepareDirectories(const TlxPathname& root)
{
    for (const TlxPathname& path : {runDirectory(root), logDirectory(root), storeDirectory(root)}) {
        if (const int error = path.createDirectories(0755))
            return unusable("make the directory", path, Tlx::systemError(error));
        std::error_code error;
        if (!std::filesystem::is_directory(path.text(), error))
            return unusable("use", path, error ? error : Tlx::systemError(ENOTDIR));
    }
    return {};
}

Result<> checkPrivilege(const TlxPathname& storeDirectory)
{
    const TlxPathname path = storeDirectory.withFileName(".privilege");
    ::unlink(path.c_str()); // left behind by a daemon that was killed right here
    auto made = Tlx::openFile(path, O_CREAT | O_EXCL | O_RDWR, 0);
    if (!made)
        return unusable("make the file", path, made.error());
    made->reset();
    const auto reopened = Tlx::openFile(path, O_RDWR);
    ::unlink(path.c_str());
    if (reopened)
        return {};
    return tl::unexpected(
        Failure{EC_NO_PRIVILEGE, "cannot reopen a file with permissions 0 in " +
                                     storeDirectory.text() + ": " + reopened.error().message() +
                                     "; run qmdisco as root or with CAP_DAC_OVERRIDE"});
}

} // namespace Veltrane::Quillmark::Qmdisco
