#include "Records.h"

#include <algorithm>

#include "Names.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

template <class Page>
void release(Pages<Page>& pages)
{
    try {
        pages.release();
    } catch (const CORBA::SystemException&) {
        // The service removes an idle iterator by itself.
    }
}

} // namespace

Remote::Discovery recordNamed(const std::string& subject, const std::string& authority,
                              Svc::AuthorityType type, Svc::DiscoveryQuery query)
{
    Remote::Discovery record;
    record.queryType = query;
    record.subject = subject.c_str();
    record.authority = authority.c_str();
    record.authType = type;
    // The service ignores these, but the wire carries every member.
    record.attributes = {Svc::CT_CONFIGURATION, Svc::CS_LOCALONLY, 0, 0, 0};
    return record;
}

std::vector<Record> readList(RecordPages& pages, std::int32_t recordsPerPage)
{
    // A page holds one record more than its size.
    pages.setPageSize(recordsPerPage - 1);
    std::vector<Record> all;
    for (;;) {
        const std::unique_ptr<Remote::DiscoverySeq> page = pages.next();
        if (page->length() == 0)
            break;
        for (CORBA::ULong i = 0; i < page->length(); ++i) {
            const Remote::Discovery& record = (*page)[i];
            all.push_back({record.subject.in(), record.authority.in(), toName(record.authType),
                           record.sourceHost.in(), record.sourceServiceName.in()});
        }
    }
    release(pages);
    std::sort(all.begin(), all.end());
    return all;
}

std::optional<std::string> readData(DataPages& pages, std::size_t limit)
{
    pages.setPageSize(static_cast<CORBA::Long>(limit));
    std::string data;
    for (;;) {
        const std::unique_ptr<Remote::CollectionDataSeq> page = pages.next();
        if (page->length() == 0)
            break;
        data.append(reinterpret_cast<const char*>(page->get_buffer()), page->length());
        if (data.size() > limit)
            break;
    }
    release(pages);
    return data.size() <= limit ? std::optional(std::move(data)) : std::nullopt;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
