#include "Input.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Descriptor.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

Input::~Input()
{
    if (m_owned)
        ::close(m_fd);
}

Failure Input::cannot(const char* what) const
{
    return {EC_FAILURE, std::string("cannot ") + what + " " + m_name + ": " + std::strerror(errno)};
}

Outcome Input::open(const std::string& name)
{
    const bool standard = name == "-";
    m_name = standard ? "standard input" : escaped(name);
    m_fd = standard ? STDIN_FILENO : ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    m_owned = !standard && m_fd >= 0;
    struct stat about = {};
    if (m_fd < 0 || ::fstat(m_fd, &about) != 0)
        return cannot("open");
    if (S_ISDIR(about.st_mode)) {
        errno = EISDIR;
        return cannot("read");
    }
    // What the kernel makes while it is read (in /proc, say) has size 0.
    if (S_ISREG(about.st_mode) && about.st_size > 0) {
        const off_t done = ::lseek(m_fd, 0, SEEK_CUR);
        if (done >= 0 && done <= about.st_size)
            m_size = static_cast<std::uint64_t>(about.st_size - done);
    }
    return {};
}

Outcome Input::read(std::vector<unsigned char>& buffer, std::size_t& count)
{
    const long got = readFull(m_fd, reinterpret_cast<char*>(buffer.data()), buffer.size());
    if (got < 0)
        return cannot("read");
    count = static_cast<std::size_t>(got);
    return {};
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
