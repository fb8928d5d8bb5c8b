#include <vector>

#include <fmt/format.h>

#include "Commands.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

using Rows = std::vector<std::vector<std::string>>;
using Milliseconds = std::chrono::duration<double, std::milli>;

/// How long the service takes to answer, or why it cannot be reached.
using Reach = Result<Milliseconds>;

Reach reach(Session& session)
{
    const auto service = session.connect();
    if (!service)
        return tl::unexpected(service.error());
    try {
        // The connection exists by now, so this is the time of one request.
        const auto start = session.now();
        (*service)->ping();
        return session.now() - start;
    } catch (const CORBA::SystemException& exception) {
        return tl::unexpected(brokeOff(session, exception));
    }
}

std::string stateOf(const StatusDocument& status)
{
    if (!status.found)
        return "not there";
    if (!status.problem.empty())
        return status.problem;
    if (!status.stale)
        return "current";
    if (status.pid == 0)
        return "stale: it names no process";
    return "stale: process " + std::to_string(status.pid) + " is gone";
}

std::string shown(const Json& value)
{
    if (value.is_string())
        return value.get<std::string>();
    return value.dump(-1, ' ', true, Json::error_handler_t::replace);
}

/// Every member except lists. A member of an object shows as OBJECT.MEMBER.
void addMembers(Rows& rows, const Json& members)
{
    for (const auto& member : members.items()) {
        if (member.value().is_array()) // another command lists it
            continue;
        if (!member.value().is_object()) {
            rows.push_back({member.key(), shown(member.value())});
            continue;
        }
        for (const auto& inner : member.value().items())
            rows.push_back({member.key() + "." + inner.key(), shown(inner.value())});
    }
}

std::string tableOf(const Session& session, const Reach& reached)
{
    Rows rows{{"service of", session.target.host},
              {"address", Tlx::toText(session.target.endpoint)},
              {"reachable", reached ? "yes" : "no"}};
    if (reached)
        rows.push_back({"answer time", fmt::format("{:.3f} ms", reached->count())});
    if (session.target.local) {
        rows.push_back({"status file", session.status.path});
        rows.push_back({"status", stateOf(session.status)});
        addMembers(rows, session.status.members);
    }
    return formatTable(rows);
}

Json documentOf(const Session& session, const Reach& reached)
{
    Json document = {{"host", session.target.host},
                     {"address", Tlx::toText(session.target.endpoint)},
                     {"reachable", reached.has_value()}};
    if (reached)
        document["answerMilliseconds"] = reached->count();
    else
        document["reason"] = reached.error().text;
    if (session.target.local) {
        const StatusDocument& status = session.status;
        document["statusFile"] = {{"path", status.path},
                                  {"found", status.found},
                                  {"stale", status.stale},
                                  {"state", stateOf(status)}};
        document["service"] = status.members;
    }
    return document;
}

} // namespace

Result<> runStatus(Session& session)
{
    const Reach reached = reach(session);
    if (auto done = session.out.write(session.options.json ? toText(documentOf(session, reached))
                                                           : tableOf(session, reached));
        !done)
        return done;
    if (!reached)
        return tl::unexpected(reached.error());
    return {};
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
