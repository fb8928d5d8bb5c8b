#include "Root.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include <tlx/File.h>
#include <tlx/FileTrust.h>

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
    // "DIR", "DIR/" and "./DIR" are the same root, and messages and the status show it in one form.
    // A ".." stays, because after a symbolic link it leads to another directory.
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
    const TlxPathname store = storeDirectory(root);
    // Everybody may go through the root: programs of other users read etc/ and lib/. Only the
    // daemon goes through db/; deployed tools know the mode of the store itself. If one of these
    // fails, so does a directory below it, with the same reason.
    (void)root.createDirectories(0755);
    (void)store.directory().createDirectories(0700);
    const std::array<std::pair<TlxPathname, unsigned>, 3> wanted{
        {{runDirectory(root), 0750}, {logDirectory(root), 0750}, {store, 0755}}};
    for (const auto& [path, mode] : wanted) {
        if (const int error = path.createDirectories(mode))
            return unusable("make the directory", path, Tlx::systemError(error));
        std::error_code error;
        if (!std::filesystem::is_directory(path.text(), error))
            return unusable("use", path, error ? error : Tlx::systemError(ENOTDIR));
    }
    return {};
}

std::vector<std::string> writableByOthers(const TlxPathname& root)
{
    std::vector<std::string> lines;
    const TlxPathname store = storeDirectory(root);
    for (const TlxPathname& path : {root, runDirectory(root), logDirectory(root), store})
        if (const auto safe = Tlx::checkNotWritableByOthers(path, root);
            !safe && std::find(lines.begin(), lines.end(), safe.error()) == lines.end())
            lines.push_back(safe.error());
    return lines;
}

Result<> checkPrivilege(const TlxPathname& storeDirectory)
{
    const TlxPathname path = storeDirectory.withFileName(".privilege");
    ::unlink(path.c_str()); // a daemon that was killed here may have left it
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
