// The fields that a filter of items may use. It merges the fields that all hosts publish.

#include <vector>

#include <FilterDescription.h>

#include "Commands.h"
#include "Text.h"
#include "Unread.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

std::vector<std::string> valuesOf(const Tlx::QueryField& field)
{
    std::vector<std::string> values;
    for (const Tlx::TlxString& value : field.values)
        values.push_back(value.utf8());
    return values;
}

std::string tableOf(const Tlx::TlxQuery& query)
{
    std::vector<std::vector<std::string>> rows{{"FIELD", "TYPE", "VALUES", "DESCRIPTION"}};
    for (const Tlx::QueryField& field : query.fields()) {
        std::string values;
        for (const std::string& value : valuesOf(field))
            values += (values.empty() ? "" : ", ") + value;
        rows.push_back({field.name.utf8(), toText(field.type), values.empty() ? "any" : values,
                        field.description.utf8()});
    }
    return formatTable(rows);
}

Json documentOf(const Tlx::TlxQuery& query)
{
    Json fields = Json::array();
    for (const Tlx::QueryField& field : query.fields())
        fields.push_back({{"field", field.name.utf8()},
                          {"type", toText(field.type)},
                          {"values", valuesOf(field)},
                          {"description", field.description.utf8()}});
    return fields;
}

} // namespace

Result<> runFilters(Session& session)
{
    Tlx::TlxQuery query;
    std::vector<Unread> unread;
    const auto add = [&](Svc::CollectionItemIterator& items) {
        noteUnread(items, unread);
        Svc::mergeDescriptions(query, items);
    };
    for (const char* subject : Svc::CLIENT_SUBJECTS)
        if (auto done = session.research(Svc::DQ_FILTER_DATA, subject, "*", nullptr, add); !done)
            return done;
    return answer(session, tableOf(query) + textOf(unread),
                  {{"filters", documentOf(query)}, {"unread", documentOf(unread)}});
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
