#pragma once
// The path of a file or directory.

#include <ostream>
#include <string>

namespace Veltrane::Quillmark::Tlx {

/// A path as text. Value type. Only createDirectories touches the file system.
class TlxPathname
{
  public:
    TlxPathname() = default;
    TlxPathname(std::string path) : m_path(std::move(path)) {}
    TlxPathname(const char* path) : m_path(path ? path : "") {}

    /// This path and one more component, with exactly one "/" between them.
    TlxPathname withFileName(const std::string& name) const;

    /// The directory: the text before the last "/". It is "." for a bare file name, and "/" for a
    /// file in the root.
    TlxPathname directory() const;

    /// The last component.
    std::string fileName() const;

    bool empty() const { return m_path.empty(); }
    const char* c_str() const { return m_path.c_str(); }
    const std::string& text() const { return m_path; }

    /// Makes the directory and all directories above it, with these permissions. The new names
    /// survive a power cut. @return 0 on success, and if the directory exists already; otherwise an
    /// errno.
    int createDirectories(unsigned int mode) const;

    friend bool operator==(const TlxPathname&, const TlxPathname&) = default;
    friend std::ostream& operator<<(std::ostream& out, const TlxPathname& path)
    {
        return out << path.m_path;
    }

  private:
    std::string m_path;
};

} // namespace Veltrane::Quillmark::Tlx
