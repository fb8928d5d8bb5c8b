#pragma once
// The file systems that this host has mounted.

#include <string>
#include <vector>

#include <FileSystem.h>

namespace Veltrane::Quillmark::Explorers {

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
