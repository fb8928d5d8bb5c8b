#include "Disk.h"

#include <algorithm>
#include <cerrno>
#include <random>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Veltrane::Quillmark::Soak {

namespace {

constexpr std::size_t COPY_BYTES = 1u << 20;

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

class File
{
  public:
    File(const std::string& path, int flags) : m_file(::open(path.c_str(), flags | O_CLOEXEC, 0600))
    {
        if (m_file < 0)
            fail(path.c_str());
    }
    ~File()
    {
        if (m_file >= 0)
            ::close(m_file);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    int get() const { return m_file; }
    int release() { return std::exchange(m_file, -1); }

  private:
    int m_file;
};

void writeAll(int file, const char* bytes, std::size_t length, std::size_t offset)
{
    while (length > 0) {
        const ssize_t count = ::pwrite(file, bytes, length, static_cast<off_t>(offset));
        if (count < 0)
            fail("a write");
        bytes += count;
        length -= static_cast<std::size_t>(count);
        offset += static_cast<std::size_t>(count);
    }
}

std::size_t readAll(int file, char* buffer, std::size_t length, std::size_t offset)
{
    std::size_t done = 0;
    while (done < length) {
        const ssize_t count =
            ::pread(file, buffer + done, length - done, static_cast<off_t>(offset + done));
        if (count < 0)
            fail("a read");
        if (count == 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

std::size_t sizeOf(int file)
{
    struct stat status = {};
    if (::fstat(file, &status) != 0)
        fail("fstat");
    return static_cast<std::size_t>(status.st_size);
}

/// Copies a file and its holes into an empty one.
void copy(int from, int to)
{
    const std::size_t size = sizeOf(from);
    if (::ftruncate(to, static_cast<off_t>(size)) != 0)
        fail("ftruncate");
    std::vector<char> buffer(COPY_BYTES);
    off_t begin = 0;
    while ((begin = ::lseek(from, begin, SEEK_DATA)) >= 0) {
        const off_t end = ::lseek(from, begin, SEEK_HOLE);
        if (end < 0)
            fail("SEEK_HOLE");
        while (begin < end) {
            const auto wanted = std::min(buffer.size(), static_cast<std::size_t>(end - begin));
            const auto offset = static_cast<std::size_t>(begin);
            writeAll(to, buffer.data(), readAll(from, buffer.data(), wanted, offset), offset);
            begin += static_cast<off_t>(wanted);
        }
    }
    if (errno != ENXIO) // no more data
        fail("SEEK_DATA");
}

std::size_t sectorsIn(std::size_t bytes)
{
    return (bytes + Disk::SECTOR - 1) / Disk::SECTOR;
}

} // namespace

Disk::Disk(const std::string& safe, const std::string& current)
{
    File safeFile(safe, O_RDWR);
    File currentFile(current, O_RDWR | O_CREAT | O_EXCL);
    copy(safeFile.get(), currentFile.get());
    m_size = sizeOf(safeFile.get());
    m_safe = safeFile.release();
    m_current = currentFile.release();
}

Disk::~Disk()
{
    ::close(m_safe);
    ::close(m_current);
}

std::size_t Disk::read(char* buffer, std::size_t length, std::size_t offset) const
{
    return readAll(m_current, buffer, length, offset);
}

void Disk::write(const char* bytes, std::size_t length, std::size_t offset)
{
    if (offset > m_size || length > m_size - offset) {
        errno = ENOSPC;
        fail("a write beyond the end");
    }
    m_unflushed.push_back({offset, {bytes, bytes + length}});
    writeAll(m_current, bytes, length, offset);
}

void Disk::flush()
{
    for (const Write& each : m_unflushed)
        writeAll(m_safe, each.bytes.data(), each.bytes.size(), each.offset);
    m_unflushed.clear();
}

std::size_t Disk::unflushedSectors() const
{
    std::size_t sectors = 0;
    for (const Write& each : m_unflushed)
        sectors += sectorsIn(each.bytes.size());
    return sectors;
}

std::size_t Disk::image(Kept kept, std::uint64_t seed, const std::string& path) const
{
    const File file(path, O_RDWR | O_CREAT | O_EXCL);
    copy(m_safe, file.get());
    std::mt19937_64 random(seed);
    const double share = std::uniform_real_distribution(0.1, 0.9)(random);
    std::bernoulli_distribution isKept(share);
    std::size_t sectors = 0;
    for (const Write& each : m_unflushed) {
        const bool keepsWrite = kept == Kept::ALL || (kept == Kept::WRITES && isKept(random));
        for (std::size_t begin = 0; begin < each.bytes.size(); begin += SECTOR) {
            if (!(keepsWrite || (kept == Kept::SECTORS && isKept(random))))
                continue;
            const auto length = std::min(SECTOR, each.bytes.size() - begin);
            writeAll(file.get(), each.bytes.data() + begin, length, each.offset + begin);
            ++sectors;
        }
    }
    return sectors;
}

} // namespace Veltrane::Quillmark::Soak
