#include "StatusFile.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace Veltrane::Quillmark::Qmdisco {

namespace {

bool writeAll(int fd, const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n > 0)
            done += static_cast<std::size_t>(n);
        else if (n == 0 || errno != EINTR)
            return false;
    }
    return true;
}

/// Makes the new name last: a rename is in the directory, which has a sync of its own.
bool syncDirectory(const Tlx::TlxPathname& directory)
{
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool synced = ::fsync(fd) == 0;
    const int error = errno;
    ::close(fd);
    errno = error;
    return synced;
}

/// A time that may be none.
nlohmann::ordered_json timeOrNull(long long seconds)
{
    return seconds == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(toIsoTime(seconds));
}

nlohmann::ordered_json toDocument(const std::vector<ExplorerLine>& lines)
{
    nlohmann::ordered_json document = nlohmann::ordered_json::array();
    for (const ExplorerLine& line : lines) {
        if (document.size() == MAX_EXPLORER_LINES)
            break;
        document.push_back({{"kind", line.kind},
                            {"name", line.name},
                            {"subject", line.subject},
                            {"authority", line.authority},
                            {"type", line.type},
                            {"priority", line.priority},
                            {"library", line.library},
                            {"last", timeOrNull(line.last)},
                            {"outcome", line.outcome}});
    }
    return document;
}

} // namespace

std::string toJson(const Status& status)
{
    nlohmann::ordered_json counters = nlohmann::ordered_json::object();
    for (const auto& [name, value] : status.counters)
        counters[name] = value;
    const nlohmann::ordered_json document = {
        {"version", status.version},
        {"pid", status.pid},
        {"state", status.state},
        {"role", status.role},
        {"host", status.host},
        {"start", status.start},
        {"endpoint", status.endpoint},
        {"root", status.root},
        {"logLevel", status.logLevel},
        {"assertions", status.assertions},
        {"requestsInProgress", status.requestsInProgress},
        {"counters", counters},
        {"nextPush", timeOrNull(status.explorers.nextPush)},
        {"explorersRegistered", status.explorers.lines.size()},
        {"explorers", toDocument(status.explorers.lines)},
    };
    return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string toIsoTime(long long seconds)
{
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm local = {};
    ::localtime_r(&time, &local);
    char text[40];
    const std::string_view result(text,
                                  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local));
    // "+0100", where the standard wants "+01:00"
    const std::size_t minutes = result.size() - 2;
    return std::string(result.substr(0, minutes)).append(":").append(result.substr(minutes));
}

bool StatusFile::write(const Status& status, std::string& error)
{
    std::string text = toJson(status);
    if (text == m_written)
        return true;
    if (!replace(text, error)) {
        m_written.clear();
        return false;
    }
    m_written = std::move(text);
    return true;
}

bool StatusFile::replace(const std::string& text, std::string& error) const
{
    const std::string temporary = m_path.text() + ".tmp";
    const auto failed = [&error](const char* what, const std::string& path) {
        error = std::string("cannot ") + what + " " + path + ": " + std::strerror(errno);
        return false;
    };
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return failed("open", temporary);
    const bool written = writeAll(fd, text) && ::fsync(fd) == 0;
    if (!written)
        failed("write", temporary);
    if (::close(fd) != 0 || !written) {
        if (written)
            failed("close", temporary);
        ::unlink(temporary.c_str());
        return false;
    }
    if (::rename(temporary.c_str(), m_path.c_str()) != 0) {
        failed("replace", m_path.text());
        ::unlink(temporary.c_str());
        return false;
    }
    if (!syncDirectory(m_path.directory()))
        return failed("sync", m_path.directory().text());
    return true;
}

} // namespace Veltrane::Quillmark::Qmdisco
