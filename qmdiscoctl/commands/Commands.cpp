#include "Commands.h"

#include <string_view>

#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

Result<> runCommand(Session& session)
{
    switch (session.options.command) {
    case Command::PUT:
        return runPut(session);
    case Command::QUERY:
        return runQuery(session);
    case Command::GET:
        return runGet(session);
    case Command::STATUS:
        return runStatus(session);
    case Command::CLIENTS:
        return session.options.registered ? runRegisteredClients(session) : runClients(session);
    case Command::ITEMS:
        return runItems(session);
    case Command::FILTERS:
        return runFilters(session);
    case Command::EXPLORERS:
        return runExplorers(session);
    case Command::REFRESH:
        return runRefresh(session);
    case Command::STOP:
        return runStop(session);
    }
    return tl::unexpected(Failure{EC_USAGE, "no such command"});
}

std::string toText(const Json& document)
{
    return document.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

Result<> answer(Session& session, const std::string& text, const Json& document)
{
    return session.out.write(session.options.json ? toText(document) : text);
}

std::string orAny(const std::string& pattern)
{
    return pattern.empty() ? "*" : pattern;
}

std::string theService(const Session& session)
{
    return "the discovery service on " + escaped(session.target.host);
}

Failure brokeOff(const Session& session, const CORBA::SystemException& exception,
                 const std::string& more)
{
    if (std::string_view(exception._name()) == "NO_PERMISSION")
        return {EC_FAILURE, theService(session) +
                                " refused, its log has the reason: " + explain(exception) + more};
    return {EC_BROKE_OFF, theService(session) + " broke off: " + explain(exception) + more};
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
