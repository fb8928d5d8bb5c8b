#pragma once
// A disk that loses what was not synced.
//
// A power cut keeps each synced operation. Each other operation may be kept or lost, alone:
//
//   - A name is durable once its directory was synced after the change of the name. A sync of the
//     file does not keep its name.
//   - Bytes and size are durable once the file was synced after the write. The sectors of a write
//     and the size are kept or lost one by one. A size without its bytes shows zeros.
//   - A rename keeps at least one of the two names, perhaps both.
//   - A sync that failed has lost the bytes: no later sync makes them durable.
//
// This is harsher than most file systems.

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>

#include "DiskOperation.h"

namespace QmTest {

/// Files by their path under a root: their content, or nothing for a directory.
using FileTree = std::map<std::string, std::optional<std::string>>;

FileTree readTree(const std::string& root);
/// Replaces everything in the directory.
void writeTree(const std::string& root, const FileTree& tree);

class DiskModel
{
  public:
    /// @param durable the files before the operations. All of it was synced.
    DiskModel(const FileTree& durable, const DiskOperations& operations);

    /// Adds the operations of the next process. Each process numbers the files that it finds from 1
    /// on, in the order of their paths, and then the files that it makes.
    void add(const DiskOperations& operations);

    /// The files after a kill: the kernel keeps everything.
    FileTree afterKill() const;

    /// The files after power cuts. Each choice of kept names comes with all bytes, and with the
    /// synced bytes only. If many names changed, some choices are drawn at random. Further cuts
    /// lose sectors, sizes or bytes at random. The seed decides what is drawn.
    std::set<FileTree> afterCuts(std::uint32_t seed) const;
    /// The files after the power cut that loses everything it may lose.
    FileTree afterWorstCut() const;

  private:
    enum class Bytes
    {
        ALL,
        SYNCED,
        SIZES_ONLY, ///< what was not synced is zeros
        RANDOM
    };
    using Names = std::map<std::string, std::uint32_t>;

    struct File
    {
        bool isDirectory = false;
        std::string durable;
        std::string current;    ///< in the kernel's memory
        DiskOperations pending; ///< `before` is the index of the operation itself
    };
    /// A name gets a file, or loses it.
    struct NameStep
    {
        std::uint32_t index = 0; ///< of the operation
        std::string path;
        std::uint32_t file = 0;
        bool isLink = true;
        bool needsStepBefore = false; ///< a rename removes the old name only if it made the new one
    };

    void sync(const DiskOperation& operation);
    static void apply(const NameStep& step, Names& names);
    std::string contentOf(const File& file, Bytes bytes, std::minstd_rand& random) const;
    FileTree treeOf(const Names& names, Bytes bytes, std::minstd_rand& random) const;
    /// The names if those steps are kept whose bits are set.
    std::optional<Names> namesAfter(std::uint64_t keptSteps) const;

    static constexpr std::uint32_t ROOT = 0;

    std::map<std::uint32_t, File> m_files;
    std::uint32_t m_operations = 0; ///< of the processes before
    Names m_current;                ///< in the kernel's memory
    Names m_durable;
    std::vector<NameStep> m_steps; ///< those that no sync covers
};

} // namespace QmTest
