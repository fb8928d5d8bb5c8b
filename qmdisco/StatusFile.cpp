#include "StatusFile.h"

#include <cerrno>
#include <ctime>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <tlx/File.h>

namespace Veltrane::Quillmark::Qmdisco {

namespace {

/// The group may read it, like the logs.
constexpr mode_t STATUS_FILE_MODE = 0640;

/// Returns null for the time 0.
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

nlohmann::ordered_json toDocument(const Writers& writers)
{
    nlohmann::ordered_json most = nlohmann::ordered_json::array();
    for (const WriterLine& line : writers.most)
        most.push_back(
            {{"peer", line.peer}, {"count", line.count}, {"oldest", timeOrNull(line.oldest)}});
    return {{"open", writers.open}, {"peers", writers.peers}, {"most", most}};
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
        {"certificateExpires", timeOrNull(status.certificateExpires)},
        {"counters", counters},
        {"writers", toDocument(status.writers)},
        {"nextPush", timeOrNull(status.explorers.nextPush)},
        {"explorersRegistered", status.explorers.lines.size()},
        {"explorers", toDocument(status.explorers.lines)},
    };
    return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string toIsoTime(long long seconds)
{
    const auto time = static_cast<std::time_t>(seconds);
    std::tm local = {};
    ::localtime_r(&time, &local);
    char text[40];
    const std::string_view result(text,
                                  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local));
    // strftime writes "+0100", and the standard wants "+01:00".
    const std::size_t minutes = result.size() - 2;
    return std::string(result.substr(0, minutes)).append(":").append(result.substr(minutes));
}

Result<> StatusFile::write(const Status& status)
{
    std::string text = toJson(status);
    if (text == m_written)
        return {};
    m_written.clear();
    auto replaced = replace(text);
    if (replaced)
        m_written = std::move(text);
    return replaced;
}

Result<> StatusFile::replace(const std::string& text) const
{
    const Tlx::TlxPathname temporary(m_path.text() + ".tmp");
    const auto cannot = [](const char* what, const Tlx::TlxPathname& path,
                           const std::error_code& error) {
        return tl::unexpected(Failure{EC_UNEXPECTED, std::string("cannot ") + what + " " +
                                                         path.text() + ": " + error.message()});
    };
    auto file = Tlx::openFile(temporary, O_WRONLY | O_CREAT | O_TRUNC, STATUS_FILE_MODE);
    if (!file)
        return cannot("open", temporary, file.error());
    // The process's mask took the group's permission away.
    (void)::fchmod(file->get(), STATUS_FILE_MODE);
    auto written = Tlx::writeAll(file->get(), text);
    if (written && ::fsync(file->get()) != 0)
        written = tl::unexpected(Tlx::systemError(errno));
    const auto closed = file->close();
    if (!written || !closed) {
        ::unlink(temporary.c_str());
        return written ? cannot("close", temporary, closed.error())
                       : cannot("write", temporary, written.error());
    }
    if (::rename(temporary.c_str(), m_path.c_str()) != 0) {
        const std::error_code error = Tlx::systemError(errno);
        ::unlink(temporary.c_str());
        return cannot("replace", m_path, error);
    }
    if (const auto synced = Tlx::syncDirectory(m_path.directory()); !synced)
        return cannot("sync", m_path.directory(), synced.error());
    return {};
}

} // namespace Veltrane::Quillmark::Qmdisco
