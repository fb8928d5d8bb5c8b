#include <vector>

#include "Commands.h"
#include "Records.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

std::string tableOf(const std::vector<Record>& all)
{
    std::vector<std::vector<std::string>> rows{{"SUBJECT", "AUTHORITY", "TYPE", "HOST", "SERVICE"}};
    for (const Record& each : all)
        rows.push_back({each.subject, each.authority, each.type, each.host, each.service});
    return formatTable(rows);
}

Json documentOf(const std::vector<Record>& all)
{
    Json document = Json::array();
    for (const Record& each : all)
        document.push_back({{"subject", each.subject},
                            {"authority", each.authority},
                            {"type", each.type},
                            {"sourceHost", each.host},
                            {"sourceServiceName", each.service}});
    return document;
}

} // namespace

Result<> runQuery(Session& session)
{
    const Options& options = session.options;
    const auto connected = session.connect();
    if (!connected)
        return tl::unexpected(connected.error());
    Service& service = **connected;
    std::vector<Record> all;
    try {
        const std::unique_ptr<RecordPages> pages = service.queryDiscoveries(
            options.queryType, options.type, orAny(options.authority), orAny(options.subject));
        if (!pages)
            return tl::unexpected(
                Failure{EC_BROKE_OFF, theService(session) + " answered without an iterator"});
        all = readList(*pages, options.recordsPerPage);
    } catch (const CORBA::SystemException& exception) {
        return tl::unexpected(brokeOff(session, exception));
    }
    // Print only now, so that an incomplete list never looks complete.
    return session.out.write(options.json ? toText(documentOf(all)) : tableOf(all));
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
