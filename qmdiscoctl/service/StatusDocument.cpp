#include "StatusDocument.h"

#include <cerrno>
#include <csignal>
#include <limits>
#include <string_view>

#include <grp.h>

#include <tlx/File.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

constexpr std::size_t MAX_BYTES = 1u << 20;
/// The service writes documents of much less depth. The stack of parser and printer is large enough
/// for this depth.
constexpr int MAX_DEPTH = 32;

/// Parses a text. Returns a discarded value if the text is not a JSON document.
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

/// Says who may read the files in a directory. The service's group may, so that an administrator
/// can let others watch the service.
std::string readersOf(const Tlx::TlxPathname& directory)
{
    const auto status = Tlx::statusAt(directory);
    if (!status || status->st_gid == 0 || (status->st_mode & S_IXGRP) == 0)
        return "; only root may read it";
    // NOLINTNEXTLINE(concurrency-mt-unsafe): this program asks from one thread
    const group* const entry = ::getgrgid(status->st_gid);
    return "; only root and the group " +
           (entry ? std::string(entry->gr_name) : std::to_string(status->st_gid)) + " may read it";
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
    const auto stat = Tlx::readWholeFile("/proc/" + std::to_string(pid) + "/stat", MAX_BYTES);
    if (!stat)
        return true; // /proc is missing
    // The form is "PID (NAME) STATE ...", and the name may contain any character.
    const std::size_t name = stat->rfind(')');
    const bool ended = name != std::string::npos && name + 2 < stat->size() &&
                       std::string_view("ZX").find((*stat)[name + 2]) != std::string_view::npos;
    return !ended;
}

StatusDocument readStatusDocument(const Tlx::TlxPathname& root)
{
    StatusDocument status;
    status.path = root.withFileName("run").withFileName("status.json").text();
    const auto text = Tlx::readWholeFile(status.path, MAX_BYTES);
    const bool tooLarge = !text && text.error() == std::errc::file_too_large;
    if (!text && !tooLarge) {
        status.found = text.error() != std::errc::no_such_file_or_directory &&
                       text.error() != std::errc::not_a_directory;
        if (status.found)
            status.problem =
                "cannot be read: " + text.error().message() +
                (text.error() == std::errc::permission_denied ? readersOf(root.withFileName("run"))
                                                              : "");
        return status;
    }
    status.found = true;
    nlohmann::ordered_json document = parse(tooLarge ? "" : *text);
    if (!document.is_object()) {
        status.problem = "is not the status of a service";
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
