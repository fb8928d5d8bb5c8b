#pragma once
// A disk with a write cache, which a power cut loses.
//
// A write is safe only after a flush. A power cut may lose the writes since then, in part and out
// of order. Only a sector is written whole.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <sys/types.h>

namespace Veltrane::Quillmark::Soak {

/// What a power cut keeps of the writes that no flush covered.
enum class Kept
{
    NONE,
    ALL,
    WRITES, ///< some whole writes
    SECTORS ///< some sectors of some writes
};

/// One thread at a time uses a disk. Each operation throws std::system_error if it fails.
class Disk
{
  public:
    static constexpr std::size_t SECTOR = 4096;

    /// @param safe the file with the safe sectors, which must exist. Its size is the disk's.
    /// @param current a new file, which gets what a reader sees.
    Disk(const std::string& safe, const std::string& current);
    ~Disk();
    Disk(const Disk&) = delete;
    Disk& operator=(const Disk&) = delete;

    std::size_t size() const { return m_size; }
    /// Returns how many bytes there were before the end of the disk.
    std::size_t read(char* buffer, std::size_t length, std::size_t offset) const;
    void write(const char* bytes, std::size_t length, std::size_t offset);
    void flush();

    std::size_t unflushedWrites() const { return m_unflushed.size(); }
    std::size_t unflushedSectors() const;

    /// Makes a file with a state that a cut at this moment can leave. Returns how many sectors of
    /// the unflushed writes it kept.
    std::size_t image(Kept kept, std::uint64_t seed, const std::string& path) const;

  private:
    struct Write
    {
        std::size_t offset;
        std::vector<char> bytes;
    };

    int m_safe = -1;
    int m_current = -1;
    std::size_t m_size = 0;
    std::deque<Write> m_unflushed;
};

} // namespace Veltrane::Quillmark::Soak
