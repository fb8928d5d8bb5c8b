#include "DirectoryStream.h"

#include <cerrno>

#include <tlx/FileSystem.h>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscDB";
} // namespace

DirectoryStream::DirectoryStream(const TlxPathname& directory)
    : m_stream(FileSystem::current().opendir(directory.c_str()))
{
    const int error = errno;
    if (!m_stream)
        DISC_LOG(1, "Unable to open " << directory << ", error " << error);
}

const char* DirectoryStream::next()
{
    errno = 0;
    if (const dirent* const entry = FileSystem::current().readdir(m_stream.get()))
        return entry->d_name;
    const int error = errno;
    m_isBroken = error != 0;
    if (m_isBroken)
        DISC_LOG(1, "Unable to read the directory, error " << error);
    return nullptr;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
