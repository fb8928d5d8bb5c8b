#include "Unread.h"

#include <algorithm>
#include <compare>

#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

void noteUnread(const Svc::CollectionItemIterator& items, const std::string& problem,
                std::vector<Unread>& unread)
{
    if (items.isParsed())
        return;
    unread.push_back({items.getSubject() ? items.getSubject()->getSubject().utf8() : "",
                      items.getAuthority() ? items.getAuthority()->getName().utf8() : "", problem});
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
