// The remote explorers that the master can pull from. The master has a record of each explorer. The
// record's data states where the explorer is.

#include <algorithm>
#include <compare>
#include <sstream>
#include <vector>

#include <XMLHelper.h>

#include "Commands.h"
#include "Names.h"
#include "Records.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

constexpr std::int32_t RECORDS_PER_PAGE = 1024;
constexpr std::size_t MAX_DOCUMENT_BYTES = 1 << 16; ///< such a document has four short values

struct Registered
{
    std::string host;
    std::string service;
    std::string subject;
    std::string authority;
    std::string type;
    unsigned priority;
    friend auto operator<=>(const Registered&, const Registered&) = default;
};

/// A record with data that does not state where its explorer is.
struct Unreadable
{
    std::string subject;
    std::string authority;
    std::string reason;
};

struct Listing
{
    std::vector<Registered> registered;
    std::vector<Unreadable> unreadable;
};

/// Where the explorer of a record is, or what is wrong with the record.
tl::expected<Registered, std::string> readOne(Service& service, const Record& record)
{
    const Remote::Discovery wanted =
        recordNamed(record.subject, record.authority, Svc::AT_REMOTEPULL, Svc::DQ_DISCOVERY_DATA);
    std::unique_ptr<DataPages> pages;
    const Svc::DiscoveryStatus status = service.getCollectionData(wanted, "", pages);
    if (status != Svc::DS_SUCCESS)
        return tl::unexpected<std::string>(toName(status));
    if (!pages)
        return tl::unexpected<std::string>("the service returned no iterator");
    const auto data = readData(*pages, MAX_DOCUMENT_BYTES);
    if (!data)
        return tl::unexpected<std::string>("its data is too long");
    std::stringstream document(*data);
    Registered registered{};
    Tlx::TlxString name;
    Tlx::TlxString host;
    Svc::AuthorityType type = Svc::AT_ANYANDALL;
    if (Svc::XMLHelper().parse(document, name, host, registered.priority, type) != 0)
        return tl::unexpected<std::string>("its data does not say where the explorer is");
    registered.host = host.utf8();
    registered.service = name.utf8();
    registered.subject = record.subject;
    registered.authority = record.authority;
    registered.type = toName(type);
    return registered;
}

Listing readAll(Service& service, RecordPages& pages)
{
    Listing listing;
    for (const Record& record : readList(pages, RECORDS_PER_PAGE)) {
        const auto registered = readOne(service, record);
        if (registered)
            listing.registered.push_back(*registered);
        else
            listing.unreadable.push_back({record.subject, record.authority, registered.error()});
    }
    std::sort(listing.registered.begin(), listing.registered.end());
    return listing;
}

std::string textOf(const Listing& listing)
{
    std::vector<std::vector<std::string>> rows{
        {"HOST", "SERVICE", "SUBJECT", "AUTHORITY", "TYPE", "PRIORITY"}};
    for (const Registered& each : listing.registered)
        rows.push_back({each.host, each.service, each.subject, each.authority, each.type,
                        std::to_string(each.priority)});
    std::string text = formatTable(rows);
    for (const Unreadable& each : listing.unreadable)
        text += "cannot read the record of " + escaped(each.subject) + " of " +
                escaped(each.authority) + ": " + each.reason + "\n";
    return text;
}

Json documentOf(const Listing& listing)
{
    Json document = {{"registered", Json::array()}, {"unreadable", Json::array()}};
    for (const Registered& each : listing.registered)
        document["registered"].push_back({{"host", each.host},
                                          {"service", each.service},
                                          {"subject", each.subject},
                                          {"authority", each.authority},
                                          {"type", each.type},
                                          {"priority", each.priority}});
    for (const Unreadable& each : listing.unreadable)
        document["unreadable"].push_back(
            {{"subject", each.subject}, {"authority", each.authority}, {"reason", each.reason}});
    return document;
}

} // namespace

Result<> runRegisteredClients(Session& session)
{
    const auto connected = session.connect();
    if (!connected)
        return tl::unexpected(connected.error());
    Service& service = **connected;
    Listing listing;
    try {
        const std::unique_ptr<RecordPages> pages =
            service.queryDiscoveries(Svc::DQ_DISCOVERY_DATA, Svc::AT_REMOTEPULL, "*", "*");
        if (!pages)
            return tl::unexpected(
                Failure{EC_BROKE_OFF, theService(session) + " answered without an iterator"});
        listing = readAll(service, *pages);
    } catch (const CORBA::SystemException& exception) {
        return tl::unexpected(brokeOff(session, exception));
    }
    return answer(session, textOf(listing), documentOf(listing));
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
