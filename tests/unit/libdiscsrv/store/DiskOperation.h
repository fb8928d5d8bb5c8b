#pragma once
// What a process did to its files, in order. The list outlives the process.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace QmTest {

/// One change of a file or a name, one sync, or a note of the process.
struct DiskOperation
{
    enum Kind : std::uint8_t
    {
        CREATE,
        MKDIR,
        WRITE,
        RESERVE, ///< changes neither bytes nor size
        RESIZE,
        SYNC, ///< of a file or a directory
        FAILED_SYNC,
        RENAME,
        UNLINK,
        NOTE
    };

    Kind kind = NOTE;
    std::string path{}; ///< under the root; for a NOTE its text
    std::string to{};   ///< of a RENAME
    /// The file's number. A file keeps its number under a new name, and no other file gets it.
    std::uint32_t file = 0;
    std::uint64_t at = 0;     ///< the offset of a WRITE, the new size of a RESIZE
    std::uint32_t before = 0; ///< a SYNC covers the operations with a lower index
    std::string bytes{};      ///< of a WRITE

    /// For messages: the operation and the name of the file, as "write 0.updating".
    std::string text() const;
};

using DiskOperations = std::vector<DiskOperation>;

/// Operations in memory that a process shares with its children. One thread at a time appends. The
/// parent reads after the child has ended.
class DiskJournal
{
  public:
    DiskJournal();
    ~DiskJournal();
    DiskJournal(const DiskJournal&) = delete;
    DiskJournal& operator=(const DiskJournal&) = delete;

    void clear();
    /// Ends the process if the memory is full.
    void append(const DiskOperation& operation);
    /// How many operations there are.
    std::uint32_t size() const;
    DiskOperations operations() const;

  private:
    struct Memory;
    Memory* const m_memory;
};

} // namespace QmTest
