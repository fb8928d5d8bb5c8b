#include <algorithm>
#include <compare>
#include <vector>

#include "Commands.h"
#include "Names.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

struct Found
{
    std::string subject;
    std::string authority;
    std::string type;
    std::string host;
    std::string service;
    friend auto operator<=>(const Found&, const Found&) = default;
};

std::string orAny(const std::string& pattern)
{
    return pattern.empty() ? "*" : pattern;
}

/// All pages. Query type and attributes are left unset in them, so they are not looked at.
std::vector<Found> readPages(RecordPages& pages, std::int32_t recordsPerPage)
{
    // A page holds one record more than its size says.
    pages.setPageSize(recordsPerPage - 1);
    std::vector<Found> all;
    for (;;) {
        const std::unique_ptr<Remote::DiscoverySeq> page = pages.next();
        if (page->length() == 0)
            return all;
        for (CORBA::ULong i = 0; i < page->length(); ++i) {
            const Remote::Discovery& record = (*page)[i];
            all.push_back({record.subject.in(), record.authority.in(), toName(record.authType),
                           record.sourceHost.in(), record.sourceServiceName.in()});
        }
    }
}

std::string tableOf(const std::vector<Found>& all)
{
    std::vector<std::vector<std::string>> rows{{"SUBJECT", "AUTHORITY", "TYPE", "HOST", "SERVICE"}};
    for (const Found& each : all)
        rows.push_back({each.subject, each.authority, each.type, each.host, each.service});
    return formatTable(rows);
}

Json documentOf(const std::vector<Found>& all)
{
    Json document = Json::array();
    for (const Found& each : all)
        document.push_back({{"subject", each.subject},
                            {"authority", each.authority},
                            {"type", each.type},
                            {"sourceHost", each.host},
                            {"sourceServiceName", each.service}});
    return document;
}

} // namespace

Outcome runQuery(Session& session)
{
    const Options& options = session.options;
    Failure failure;
    const std::unique_ptr<Service> service = session.connect(failure);
    if (!service)
        return failure;
    std::vector<Found> all;
    try {
        const std::unique_ptr<RecordPages> pages = service->queryDiscoveries(
            options.queryType, options.type, orAny(options.authority), orAny(options.subject));
        if (!pages)
            return Failure{EC_BROKE_OFF, theService(session) + " answered without an iterator"};
        all = readPages(*pages, options.recordsPerPage);
        try {
            pages->release();
        } catch (const CORBA::SystemException&) {
            // The service gets rid of an idle iterator by itself.
        }
    } catch (const CORBA::SystemException& exception) {
        return brokeOff(session, exception);
    }
    // The service's order is that of its directory, which tells nobody anything.
    std::sort(all.begin(), all.end());
    // Only now: half a list could be taken for the whole.
    return session.out.write(options.json ? toText(documentOf(all)) : tableOf(all));
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
