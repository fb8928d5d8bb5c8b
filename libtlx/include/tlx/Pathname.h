#pragma once
// The path of a file or directory.

#include <ostream>
#include <string>

namespace Veltrane::Quillmark::Tlx {

/// A path as text; value type, never touches the file system except in createDirectories.
class TlxPathname
{
  public:
    TlxPathname() = default;
    TlxPathname(std::string path) : m_path(std::move(path)) {}
    TlxPathname(const char* path) : m_path(path ? path : "") {}

    /// This path with one more component, joined by exactly one "/".
    TlxPathname withFileName(const std::string& name) const;

    /// The directory part: all before the last "/", "." for a bare file name, "/" for a file in the
    /// root.
    TlxPathname directory() const;

    /// The last component.
    std::string fileName() const;

    bool empty() const { return m_path.empty(); }
    const char* c_str() const { return m_path.c_str(); }
    const std::string& text() const { return m_path; }

    /// Makes the directory and all above it with the given permissions; 0 on success (also when it
    /// was there), else errno.
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
