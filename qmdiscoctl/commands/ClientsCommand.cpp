// The discovered clients: the hosts that publish what a filter may ask about.

#include <set>
#include <vector>

#include "Commands.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

Result<> runClients(Session& session)
{
    std::set<std::string> clients;
    const auto add = [&clients](Svc::CollectionItemIterator& items) {
        // Only the authority counts. The record may have no fields or be unreadable.
        if (items.getAuthority())
            clients.insert(items.getAuthority()->getName().utf8());
    };
    for (const char* subject : Svc::CLIENT_SUBJECTS)
        if (auto done = session.research(Svc::DQ_FILTER_DATA, subject, "*", nullptr, add); !done)
            return done;
    std::vector<std::vector<std::string>> rows{{"CLIENT"}};
    for (const std::string& client : clients)
        rows.push_back({client});
    return answer(session, formatTable(rows), {{"clients", clients}});
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
