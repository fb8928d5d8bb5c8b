#include "StoreFloor.h"

#include <stdexcept>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace Veltrane::Quillmark::Bench {

namespace {

void check(bool good, const char* what)
{
    if (!good)
        throw std::runtime_error(what);
}

} // namespace

void putFiles(const std::filesystem::path& directory, const std::string& name,
              const std::string& metadata, const std::string& payload)
{
    const auto temporary = directory / "floor.tmp";
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    check(fd != -1, "open of a payload");
    check(::write(fd, payload.data(), payload.size()) == static_cast<ssize_t>(payload.size()),
          "write of a payload");
    check(::fsync(fd) == 0, "fsync of a payload");
    ::close(fd);
    const auto path = directory / (name + ".xml");
    fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
    check(fd != -1, "open of metadata");
    check(::write(fd, metadata.data(), metadata.size()) == static_cast<ssize_t>(metadata.size()),
          "write of metadata");
    check(::rename(temporary.c_str(), (directory / (name + ".dat")).c_str()) == 0, "rename");
    const int dir = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY);
    check(dir != -1 && ::fsync(dir) == 0, "fsync of the directory");
    ::close(dir);
    check(::fsync(fd) == 0, "fsync of metadata");
    ::close(fd);
}

std::size_t readFile(const std::filesystem::path& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY);
    check(fd != -1, "open");
    char buffer[8192];
    std::size_t size = 0;
    ssize_t count;
    while ((count = ::read(fd, buffer, sizeof buffer)) > 0)
        size += static_cast<std::size_t>(count);
    ::close(fd);
    return size;
}

std::size_t scanFiles(const std::filesystem::path& directory)
{
    DIR* dir = ::opendir(directory.c_str());
    check(dir, "opendir");
    std::size_t count = 0;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".xml") == 0) {
            readFile(directory / name);
            ++count;
        }
    }
    ::closedir(dir);
    return count;
}

} // namespace Veltrane::Quillmark::Bench
