#include "Confinement.h"

#include <cerrno>
#include <cstdint>

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <tlx/File.h>

namespace Veltrane::Quillmark::Qmdisco {

namespace {

using Tlx::FileDescriptor;
using Tlx::FileResult;

/// The headers of Debian 12 do not name this right. Newer kernels have it.
constexpr std::uint64_t ACCESS_TRUNCATE = 1u << 14;

/// Rights that files have, too. All others belong to directories.
constexpr std::uint64_t FILE_RIGHTS = LANDLOCK_ACCESS_FS_WRITE_FILE | ACCESS_TRUNCATE;

constexpr std::uint64_t WRITE_RIGHTS =
    FILE_RIGHTS | LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
    LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
    LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK |
    LANDLOCK_ACCESS_FS_MAKE_SYM | LANDLOCK_ACCESS_FS_REFER;

/// The rights of WRITE_RIGHTS that a version of the kernel's interface knows.
std::uint64_t knownRights(long version)
{
    constexpr long WITH_REFER = 2;
    constexpr long WITH_TRUNCATE = 3;
    std::uint64_t rights = WRITE_RIGHTS;
    if (version < WITH_TRUNCATE)
        rights &= ~ACCESS_TRUNCATE;
    if (version < WITH_REFER)
        rights &= ~std::uint64_t{LANDLOCK_ACCESS_FS_REFER};
    return rights;
}

tl::unexpected<std::error_code> lastFailure()
{
    return tl::unexpected(Tlx::systemError(errno));
}

FileResult<> allow(const FileDescriptor& rules, const Tlx::TlxPathname& path, std::uint64_t rights)
{
    const auto file = Tlx::openFile(path, O_PATH);
    if (!file)
        return file.error() == std::errc::no_such_file_or_directory ? FileResult<>()
                                                                    : tl::unexpected(file.error());
    const auto status = Tlx::statusOf(file->get());
    if (!status)
        return tl::unexpected(status.error());
    landlock_path_beneath_attr rule = {};
    rule.allowed_access = S_ISDIR(status->st_mode) ? rights : rights & FILE_RIGHTS;
    rule.parent_fd = file->get();
    if (::syscall(SYS_landlock_add_rule, rules.get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0) != 0)
        return lastFailure();
    return {};
}

} // namespace

void keepPrivate()
{
    ::umask(0077);
    // The limit alone is not enough: the kernel ignores it if a program takes the dumps.
    (void)::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    const rlimit none = {0, 0};
    (void)::setrlimit(RLIMIT_CORE, &none);
}

FileResult<> confineWrites(const std::vector<Tlx::TlxPathname>& paths)
{
    const long version =
        ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    if (version < 0)
        return lastFailure();
    landlock_ruleset_attr wanted = {};
    wanted.handled_access_fs = knownRights(version);
    const FileDescriptor rules(static_cast<int>(
        ::syscall(SYS_landlock_create_ruleset, &wanted, sizeof wanted.handled_access_fs, 0)));
    if (!rules.isOpen())
        return lastFailure();
    for (const Tlx::TlxPathname& path : paths)
        if (auto allowed = allow(rules, path, wanted.handled_access_fs); !allowed)
            return allowed;
    // Without it, only a process with CAP_SYS_ADMIN may confine itself.
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::syscall(SYS_landlock_restrict_self, rules.get(), 0) != 0)
        return lastFailure();
    return {};
}

} // namespace Veltrane::Quillmark::Qmdisco
