// Makes syncs do nothing, when it is loaded before the C library (LD_PRELOAD). QM_LOSE_SYNCS names
// which: all, payloads, metadata or directories. The self-test of the power cuts uses it, and must
// find what is lost.

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool isLost(int file)
{
    const char* const value = std::getenv("QM_LOSE_SYNCS");
    const std::string_view lost = value ? value : "";
    if (lost == "all")
        return true;
    struct stat status = {};
    if (::fstat(file, &status) != 0)
        return false;
    if (S_ISDIR(status.st_mode))
        return lost == "directories";
    char path[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(file);
    const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
    const std::string_view name(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return (lost == "payloads" && name.ends_with(".updating")) ||
           (lost == "metadata" && name.ends_with(".xml"));
}

int syncNext(const char* function, int file)
{
    if (isLost(file))
        return 0;
    const auto next = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_NEXT, function));
    return next(file);
}

} // namespace

extern "C" int fsync(int file)
{
    return syncNext("fsync", file);
}

extern "C" int fdatasync(int file)
{
    return syncNext("fdatasync", file);
}
