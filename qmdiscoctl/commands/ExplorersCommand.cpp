#include <vector>

#include "Commands.h"
#include "Names.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

/// A member of one explorer as text. A missing one shows as "-" in the table.
std::string cell(const Json& explorer, const char* name)
{
    const auto member = explorer.find(name);
    if (member == explorer.end() || member->is_null())
        return "";
    return member->is_string() ? member->get<std::string>() : member->dump();
}

std::string typeOf(const Json& explorer)
{
    const auto type = explorer.find("type");
    const bool known = type != explorer.end() && type->is_number_integer() && *type >= 0 &&
                       *type <= static_cast<int>(Svc::AT_REMOTEPULL);
    return known ? toName(static_cast<Svc::AuthorityType>(type->get<int>()))
                 : cell(explorer, "type");
}

std::string tableOf(const Json& explorers)
{
    std::vector<std::vector<std::string>> rows{{"KIND", "SUBJECT", "AUTHORITY", "TYPE", "PRIORITY",
                                                "EXPLORER", "LAST", "OUTCOME", "LIBRARY"}};
    for (const Json& each : explorers)
        if (each.is_object())
            rows.push_back({cell(each, "kind"), cell(each, "subject"), cell(each, "authority"),
                            typeOf(each), cell(each, "priority"), cell(each, "name"),
                            cell(each, "last"), cell(each, "outcome"), cell(each, "library")});
    return formatTable(rows);
}

} // namespace

// The wire contract has no list of explorers. The service's status file has one.
Result<> runExplorers(Session& session)
{
    const StatusDocument& status = session.status;
    if (!session.options.host.empty() && !session.target.local)
        return tl::unexpected(Failure{EC_USAGE, "the explorers of " + escaped(session.target.host) +
                                                    " can be listed on that host only"});
    if (!status.found)
        return tl::unexpected(
            Failure{EC_UNREACHABLE, "the service of this host is not running: there is no " +
                                        escaped(status.path)});
    if (!status.problem.empty())
        return tl::unexpected(Failure{EC_FAILURE, escaped(status.path) + " " + status.problem});
    if (status.stale)
        return tl::unexpected(Failure{
            EC_UNREACHABLE, "the service of this host is not running: " + escaped(status.path) +
                                " describes a service that has ended"});
    const auto member = status.members.find("explorers");
    if (member == status.members.end() || !member->is_array())
        return tl::unexpected(
            Failure{EC_FAILURE, escaped(status.path) + " has no list of explorers"});
    const std::string next = cell(status.members, "nextPush");
    const std::string count = cell(status.members, "explorersRegistered");
    std::string text = tableOf(*member);
    if (count != std::to_string(member->size()))
        text += "of " + count + " explorers in all\n";
    text += next.empty() ? "no push is due\n" : "next push: " + escaped(next) + "\n";
    Json document = {{"nextPush", next.empty() ? Json() : Json(next)}, {"explorers", *member}};
    return answer(session, text, document);
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
