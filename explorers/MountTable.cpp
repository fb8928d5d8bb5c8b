#include "MountTable.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <libmount.h>
#include <sys/statvfs.h>

namespace Veltrane::Quillmark::Explorers {

namespace {

std::string textOf(const char* text)
{
    return text ? text : "";
}

/// The mount library counts "overlay" as a pseudo file system. But it has a size, and containers
/// have their root on it.
bool isPseudo(libmnt_fs* fs)
{
    return mnt_fs_is_pseudofs(fs) != 0 && textOf(mnt_fs_get_fstype(fs)) != "overlay";
}

void addSizes(FileSystem& fileSystem)
{
    struct statvfs sizes = {};
    if (::statvfs(fileSystem.mount.c_str(), &sizes) != 0)
        return;
    const std::uint64_t block = sizes.f_frsize;
    fileSystem.size = sizes.f_blocks * block;
    fileSystem.used = (sizes.f_blocks - std::min(sizes.f_bfree, sizes.f_blocks)) * block;
}

} // namespace

Exclusion::Exclusion(const std::string& list)
{
    std::size_t from = 0;
    while (from <= list.size()) {
        const std::size_t comma = std::min(list.find(',', from), list.size());
        std::string word = list.substr(from, comma - from);
        std::erase_if(word, [](char c) { return c == ' ' || c == '\t'; });
        if (word == "pseudo")
            m_pseudo = true;
        else if (!word.empty() && word != "none")
            m_types.push_back(word);
        from = comma + 1;
    }
}

bool Exclusion::excludes(const std::string& type, bool pseudo) const
{
    return (m_pseudo && pseudo) || std::find(m_types.begin(), m_types.end(), type) != m_types.end();
}

tl::expected<std::vector<FileSystem>, std::string> readMountTable(const std::string& table,
                                                                  const Exclusion& exclusion)
{
    const std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> mounts(
        mnt_new_table_from_file(table.c_str()), &mnt_unref_table);
    const std::unique_ptr<libmnt_iter, decltype(&mnt_free_iter)> each(
        mnt_new_iter(MNT_ITER_FORWARD), &mnt_free_iter);
    if (!mounts || !each)
        return tl::unexpected("cannot read " + table + ": " + std::strerror(errno));
    std::vector<FileSystem> fileSystems;
    libmnt_fs* fs = nullptr;
    while (mnt_table_next_fs(mounts.get(), each.get(), &fs) == 0) {
        FileSystem fileSystem;
        fileSystem.mount = textOf(mnt_fs_get_target(fs));
        std::erase_if(fileSystems,
                      [&](const FileSystem& other) { return other.mount == fileSystem.mount; });
        fileSystem.type = textOf(mnt_fs_get_fstype(fs));
        if (exclusion.excludes(fileSystem.type, isPseudo(fs)))
            continue;
        fileSystem.device = textOf(mnt_fs_get_source(fs));
        fileSystem.options = textOf(mnt_fs_get_options(fs));
        fileSystem.readOnly = mnt_fs_match_options(fs, "ro") != 0;
        if (!mnt_fs_is_netfs(fs))
            addSizes(fileSystem);
        fileSystems.push_back(std::move(fileSystem));
    }
    return fileSystems;
}

} // namespace Veltrane::Quillmark::Explorers
