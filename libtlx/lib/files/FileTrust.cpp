#include <tlx/FileTrust.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <tlx/File.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

using Verdict = tl::expected<void, std::string>;

/// As many links in a row as the kernel follows.
constexpr int MAX_LINKS = 40;

tl::unexpected<std::string> cannotExamine(const std::string& path, const std::error_code& error)
{
    return tl::unexpected("cannot examine " + path + ": " + error.message());
}

std::string modeOf(const struct stat& status)
{
    std::array<char, 8> text{};
    (void)std::snprintf(text.data(), text.size(), "%04o", status.st_mode & 07777u);
    return text.data();
}

bool isTrusted(uid_t user)
{
    return user == 0 || user == ::geteuid();
}

Verdict checkOwner(const std::string& path, const struct stat& status)
{
    if (isTrusted(status.st_uid))
        return {};
    const uid_t self = ::geteuid();
    return tl::unexpected(path + " belongs to user " + std::to_string(status.st_uid) + " (mode " +
                          modeOf(status) + "); root" +
                          (self == 0 ? "" : " or user " + std::to_string(self)) + " is expected");
}

Verdict checkStatus(const std::string& path, const struct stat& status, mode_t forbidden)
{
    if (auto owned = checkOwner(path, status); !owned)
        return owned;
    if ((status.st_mode & forbidden & (S_IWGRP | S_IWOTH)) != 0)
        return tl::unexpected("others may write " + path + " (mode " + modeOf(status) + ")");
    if ((status.st_mode & forbidden) != 0)
        return tl::unexpected("others may use " + path + " (mode " + modeOf(status) +
                              "); mode 0600 is expected");
    return {};
}

constexpr mode_t WRITING = S_IWGRP | S_IWOTH;
constexpr mode_t ANYTHING = S_IRWXG | S_IRWXO;

Verdict checkDirectory(const std::filesystem::path& path)
{
    const std::string text = path.empty() ? "." : path.string();
    const auto status = statusAt(text);
    return status ? checkStatus(text, *status, WRITING) : cannotExamine(text, status.error());
}

/// Checks a file or directory. If it is a symbolic link, it checks each target and its directory.
Verdict checkWithLinks(std::filesystem::path path, mode_t forbidden)
{
    const std::string first = path.string();
    for (int links = 0; links <= MAX_LINKS; ++links) {
        struct stat status = {};
        if (::lstat(path.c_str(), &status) != 0)
            return cannotExamine(path.string(), systemError(errno));
        if (!S_ISLNK(status.st_mode))
            return checkStatus(path.string(), status, forbidden);
        if (auto owned = checkOwner(path.string(), status); !owned)
            return owned;
        std::error_code error;
        const std::filesystem::path target = std::filesystem::read_symlink(path, error);
        if (error)
            return cannotExamine(path.string(), error);
        path = path.parent_path() / target;
        if (auto safe = checkDirectory(path.parent_path()); !safe)
            return safe;
    }
    return cannotExamine(first, systemError(ELOOP));
}

/// Returns the directories from the top down to the one that holds the path; nothing if the path is
/// not below the top. Compares the texts: a ".." could lead anywhere.
std::vector<std::filesystem::path> directoriesDownTo(const std::filesystem::path& path,
                                                     const std::filesystem::path& top)
{
    const auto [end, rest] = std::mismatch(top.begin(), top.end(), path.begin(), path.end());
    if (end != top.end() || rest == path.end() || std::find(rest, path.end(), "..") != path.end())
        return {};
    std::vector<std::filesystem::path> directories{top};
    for (auto each = rest; std::next(each) != path.end(); ++each)
        directories.push_back(directories.back() / *each);
    return directories;
}

/// Returns the path without slashes at its end.
std::filesystem::path trimmed(const TlxPathname& path)
{
    const std::filesystem::path whole(path.text());
    return whole.has_filename() ? whole : whole.parent_path();
}

Verdict check(const TlxPathname& wanted, const TlxPathname& above, mode_t forbidden)
{
    if (wanted.empty())
        return cannotExamine("\"\"", systemError(ENOENT));
    const std::filesystem::path path = trimmed(wanted);
    const std::filesystem::path top = trimmed(above);
    if (path == top)
        return checkDirectory(path);
    const auto directories = directoriesDownTo(path, top);
    if (auto safe = checkDirectory(directories.empty() ? path.parent_path() : top); !safe)
        return safe;
    for (std::size_t i = 1; i < directories.size(); ++i)
        if (auto safe = checkWithLinks(directories[i], WRITING); !safe)
            return safe;
    return checkWithLinks(path, forbidden);
}

} // namespace

Verdict checkNotWritableByOthers(const TlxPathname& path, const TlxPathname& top)
{
    return check(path, top, WRITING);
}

Verdict checkSecret(const TlxPathname& path, const TlxPathname& top)
{
    return check(path, top, ANYTHING);
}

} // namespace Veltrane::Quillmark::Tlx
