#include "StatusDocument.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

constexpr std::size_t MAX_BYTES = 1u << 20;
/// Far more than the service writes; little enough for the parser's and the printer's stack.
constexpr int MAX_DEPTH = 32;

/// Reads at most MAX_BYTES and one more. 0 on success, else errno.
int readFile(const std::string& path, std::string& out)
{
    // Not blocking: somebody may have put a pipe there.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        return errno;
    struct stat about = {};
    int error = ::fstat(fd, &about) != 0 ? errno : S_ISREG(about.st_mode) ? 0 : EINVAL;
    std::array<char, 16384> buffer;
    while (error == 0 && out.size() <= MAX_BYTES) {
        const ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count == 0)
            break;
        if (count > 0)
            out.append(buffer.data(), static_cast<std::size_t>(count));
        else if (errno != EINTR)
            error = errno;
    }
    ::close(fd);
    return error;
}

/// The document in a text, discarded when it is none.
nlohmann::ordered_json parse(const std::string& text)
{
    bool tooDeep = false;
    const auto watch = [&tooDeep](int depth, nlohmann::ordered_json::parse_event_t,
                                  nlohmann::ordered_json&) {
        tooDeep = tooDeep || depth > MAX_DEPTH;
        return depth <= MAX_DEPTH;
    };
    nlohmann::ordered_json document = nlohmann::ordered_json::parse(text, watch, false);
    return tooDeep ? nlohmann::ordered_json(nlohmann::ordered_json::value_t::discarded) : document;
}

} // namespace

std::string StatusDocument::text(const std::string& name) const
{
    const auto member = members.find(name);
    return member != members.end() && member->is_string() ? member->get<std::string>() : "";
}

bool isRunning(long pid)
{
    if (pid <= 0 || pid > std::numeric_limits<pid_t>::max())
        return false;
    if (::kill(static_cast<pid_t>(pid), 0) != 0)
        return errno == EPERM;
    std::string stat;
    if (readFile("/proc/" + std::to_string(pid) + "/stat", stat) != 0)
        return true; // no /proc to ask
    // "PID (NAME) STATE ...", and the name may hold anything.
    const std::size_t name = stat.rfind(')');
    const bool ended = name != std::string::npos && name + 2 < stat.size() &&
                       std::string_view("ZX").find(stat[name + 2]) != std::string_view::npos;
    return !ended;
}

StatusDocument readStatusDocument(const Tlx::TlxPathname& root)
{
    StatusDocument status;
    status.path = root.withFileName("run").withFileName("status.json").text();
    std::string text;
    if (const int error = readFile(status.path, text); error != 0) {
        status.found = error != ENOENT && error != ENOTDIR;
        if (status.found)
            status.problem = std::string("cannot be read: ") + std::strerror(error);
        return status;
    }
    status.found = true;
    nlohmann::ordered_json document = parse(text);
    if (text.size() > MAX_BYTES || !document.is_object()) {
        status.problem = "is no status of a service";
        return status;
    }
    status.members = std::move(document);
    const auto pid = status.members.find("pid");
    if (pid != status.members.end() && pid->is_number_integer())
        status.pid = pid->get<long>();
    status.stale = !isRunning(status.pid);
    return status;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
