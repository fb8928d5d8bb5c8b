#include "Phase.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace Veltrane::Quillmark::Soak {

Phase::Phase(const std::string& path)
    : m_file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644))
{
    if (m_file < 0)
        throw std::system_error(errno, std::generic_category(), path);
    set(NOTHING);
}

Phase::~Phase()
{
    ::close(m_file);
}

void Phase::set(Kept kept)
{
    const char byte = kept;
    if (::pwrite(m_file, &byte, 1, 0) != 1)
        throw std::system_error(errno, std::generic_category(), "the file of the phase");
}

} // namespace Veltrane::Quillmark::Soak
