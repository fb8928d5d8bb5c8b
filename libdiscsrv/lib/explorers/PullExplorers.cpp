#include "PullExplorers.h"

#include <algorithm>

#include <tlx/Uri.h>
#include <tlx/Wildcard.h>

#include "DiscLog.h"
#include "DiscMem.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscoveryRepository";

bool matches(const TlxString& pattern, const TlxString& name)
{
    return wildcardcmp(pattern.c_str(), name.c_str(), 0) == 0;
}

} // namespace

DiscoveryIterator* findPullExplorers(DiscoveryQuery query, const ExplorerSet& explorers,
                                     const std::string& subject, const std::string& authority)
{
    DISC_TRACE("DiscoveryRepository::findPullExplorer");
    // The wrappers' names have this form, too. Wildcards stay.
    const AutoDereference<ExplorerIdentity> identity(new ExplorerIdentity(
        uriEncode(authority, URI_MASK_DISPLAY), uriEncode(subject, URI_MASK_DISPLAY)));
    const auto first = std::find_if(
        explorers.begin(), explorers.end(), [&](const AutoDereference<ExplorerWrapper>& wrapper) {
            return matches(identity->getAuthority(), wrapper->getAuthority()->getName()) &&
                   matches(identity->getSubject(), wrapper->getSubject()->getSubject());
        });
    if (first == explorers.end())
        return nullptr;
    // Compat(pull-match-and-after): peers get the first match and all after it, matching or not.
    ExplorerQuerySet queries;
    for (auto each = first; each != explorers.end(); ++each)
        queries.insert(AutoDereference<ExplorerQuery>(new ExplorerQuery(*each)));
    DiscoveryIterator* discIter = getDiscoveryMemDatbase()->getIterator(queries, query);
    (void)TLX_ASSERT(discIter);
    return discIter;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
