#pragma once
// Reads the file systems that this host has mounted.

#include <string>
#include <vector>

#include <tl/expected.hpp>

#include <FileSystem.h>

namespace Veltrane::Quillmark::Explorers {

/// The file systems that the explorers leave out.
class Exclusion
{
  public:
    /// @param list types, separated by commas. "pseudo" stands for every type that only shows parts
    /// of the kernel or of memory, "none" for no type.
    explicit Exclusion(const std::string& list);
    /// @param pseudo true if the mount library calls the type a pseudo file system.
    bool excludes(const std::string& type, bool pseudo) const;

  private:
    std::vector<std::string> m_types;
    bool m_pseudo = false;
};

/// Returns the mounted file systems in the order of mounting. If several are mounted on one place,
/// it returns the last one, which hides the others. The error is a text for people: the table
/// cannot be read.
/// @param table the kernel's table, "/proc/self/mountinfo".
[[nodiscard]] tl::expected<std::vector<FileSystem>, std::string>
readMountTable(const std::string& table, const Exclusion& exclusion);

} // namespace Veltrane::Quillmark::Explorers
