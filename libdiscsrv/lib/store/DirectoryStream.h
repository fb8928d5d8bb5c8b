#pragma once
// Reads the names in a directory.

#include <memory>

#include <dirent.h>

#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// An open directory, which the destructor closes. Failures go to the log. One thread reads the
/// names; any thread may use the descriptor.
class DirectoryStream
{
  public:
    explicit DirectoryStream(const TlxPathname& directory);

    bool isOpen() const { return m_stream != nullptr; }
    /// Returns the next name in an open directory, null at the end and after a failure. The name is
    /// valid until the next call.
    const char* next();
    /// True once a failure has ended the names too early.
    bool isBroken() const { return m_isBroken; }
    int descriptor() const { return ::dirfd(m_stream.get()); }

  private:
    struct Close
    {
        void operator()(DIR* stream) const { ::closedir(stream); }
    };

    std::unique_ptr<DIR, Close> m_stream;
    bool m_isBroken = false;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
