#include "Unread.h"

#include <algorithm>
#include <compare>

#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

void noteUnread(const Svc::CollectionItemIterator& items, std::vector<Unread>& unread)
{
    if (const auto& failure = items.getFailure())
        unread.push_back({failure->subject, failure->authority, escaped(failure->cause)});
}

std::string textOf(std::vector<Unread> unread)
{
    std::sort(unread.begin(), unread.end());
    std::string text;
    for (const Unread& each : unread)
        text += "not read: " + escaped(each.subject) + " of " + escaped(each.authority) + ": " +
                each.reason + "\n";
    return text;
}

Json documentOf(const std::vector<Unread>& unread)
{
    Json document = Json::array();
    for (const Unread& each : unread)
        document.push_back(
            {{"subject", each.subject}, {"authority", each.authority}, {"reason", each.reason}});
    return document;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
