#include "Input.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

Failure Input::cannot(const char* what, const std::error_code& error) const
{
    return {EC_FAILURE, std::string("cannot ") + what + " " + m_name + ": " + error.message()};
}

Result<> Input::open(const std::string& name)
{
    const bool standard = name == "-";
    m_name = standard ? "standard input" : escaped(name);
    m_read = STDIN_FILENO;
    if (!standard) {
        auto file = Tlx::openFile(name, O_RDONLY | O_NOCTTY);
        if (!file)
            return tl::unexpected(cannot("open", file.error()));
        m_file = std::move(*file);
        m_read = m_file.get();
    }
    struct stat about = {};
    if (::fstat(m_read, &about) != 0)
        return tl::unexpected(cannot("open", Tlx::systemError(errno)));
    if (S_ISDIR(about.st_mode))
        return tl::unexpected(cannot("read", Tlx::systemError(EISDIR)));
    // A file that the kernel makes during the read, for instance in /proc, has size 0.
    if (S_ISREG(about.st_mode) && about.st_size > 0) {
        const off_t done = ::lseek(m_read, 0, SEEK_CUR);
        if (done >= 0 && done <= about.st_size)
            m_size = static_cast<std::uint64_t>(about.st_size - done);
    }
    return {};
}

Result<std::size_t> Input::read(std::vector<unsigned char>& buffer)
{
    const auto got = Tlx::readFull(m_read, reinterpret_cast<char*>(buffer.data()), buffer.size());
    if (!got)
        return tl::unexpected(cannot("read", got.error()));
    return *got;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
