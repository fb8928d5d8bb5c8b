#pragma once
// The file systems that this host has mounted.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Veltrane::Quillmark::Explorers {

struct FileSystem
{
    std::string mount = {}; ///< where it is mounted
    std::string device = {};
    std::string type = {};
    std::string options = {};
    bool readOnly = false;
    /// Bytes. Absent where asking could take for ever (a network file system, whose server may be
    /// gone), and where the system does not tell.
    std::optional<std::uint64_t> size = std::nullopt;
    std::optional<std::uint64_t> used = std::nullopt;
};

/// Which file systems are left out.
class Exclusion
{
  public:
    /// A list of types with commas between them; "pseudo" stands for every type that only shows
    /// something of the kernel or of memory, "none" for nothing.
    explicit Exclusion(const std::string& list);
    /// @param pseudo whether the system calls the file system a pseudo one.
    bool excludes(const std::string& type, bool pseudo) const;

  private:
    std::vector<std::string> m_types;
    bool m_pseudo = false;
};

/// What is mounted, in the order of mounting; of several on one place the last one, which hides the
/// others. False, with the reason in error, when the table cannot be read.
/// @param table the kernel's table, "/proc/self/mountinfo".
bool readMountTable(const std::string& table, const Exclusion& exclusion,
                    std::vector<FileSystem>& fileSystems, std::string& error);

} // namespace Veltrane::Quillmark::Explorers
