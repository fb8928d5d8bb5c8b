#include "StoreFloor.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "Names.h"
#include "Pages.h"

namespace Veltrane::Quillmark::Bench {

namespace {

/// As long as the metadata document of a benchmark's record.
const std::string METADATA(400, 'm');

void check(bool good, const char* what)
{
    if (!good)
        throw std::system_error(errno, std::generic_category(), what);
}

class File
{
  public:
    File(const std::filesystem::path& path, int flags)
        : m_fd(::open(path.c_str(), flags | O_CLOEXEC, 0600))
    {
        check(m_fd != -1, path.c_str());
    }
    ~File() { ::close(m_fd); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    void write(const char* data, std::size_t size) const
    {
        check(::write(m_fd, data, size) == static_cast<ssize_t>(size), "write");
    }
    /// For a directory.
    void sync() const { check(::fsync(m_fd) == 0, "fsync"); }
    /// For a file, as the store does it.
    void syncBytes() const { check(::fdatasync(m_fd) == 0, "fdatasync"); }

  private:
    int m_fd;
};

/// Writes and syncs the payload, the metadata and their names, each before the next.
void putFiles(const std::filesystem::path& directory, const std::string& name,
              const std::string& payload)
{
    const auto temporary = directory / fmt::format("{}.updating", ::getpid());
    {
        const File file(temporary, O_WRONLY | O_CREAT | O_TRUNC);
        const char* next = payload.data();
        forEachPage(payload.size(), PAGE_BYTES, [&](unsigned long size) {
            file.write(next, size);
            next += size;
        });
        file.syncBytes();
    }
    {
        const File file(directory / (name + ".xml"), O_RDWR | O_CREAT);
        file.write(METADATA.data(), METADATA.size());
        file.syncBytes();
    }
    check(::rename(temporary.c_str(), (directory / (name + ".dat")).c_str()) == 0, "rename");
    File(directory, O_RDONLY | O_DIRECTORY).sync();
}

Operation filesPut(const nlohmann::json& command)
{
    return [directory = std::filesystem::path(command.at("directory").get<std::string>()),
            payload = payloadOf(command.at("size").get<unsigned long>()),
            numbers = Numbers(command)]() mutable {
        putFiles(directory, subjectOf(numbers.next()), payload);
    };
}

} // namespace

std::map<std::string, Preparation> floorOperations()
{
    return {{"files.put", filesPut}};
}

} // namespace Veltrane::Quillmark::Bench
