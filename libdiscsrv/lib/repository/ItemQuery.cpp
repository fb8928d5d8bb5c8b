#include "ItemQuery.h"

#include "DiscLog.h"
#include "DiscoveryRepository.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../Researcher";
constexpr const char* NO_HANDLE = "Failed to get a handle to discoveries";
} // namespace

AuthSubIterator* getAuthSubIterator(DiscoveryQuery query, const std::string& first,
                                    const std::string& second, AuthorityType type)
{
    DISC_TRACE("getAuthSubIterator");
    const AutoDereference<DiscoveryIterator> discoveries(
        getDiscoveryRepository()->queryDiscoveries(query, first, second, type));
    if (!discoveries) {
        DISC_WARN(NO_HANDLE);
        return nullptr;
    }
    return new AuthSubIterator(discoveries.get());
}

tl::expected<AutoDereference<AuthSubIterator>, ResearchFailure>
researchDiscoveries(DiscoveryQuery query, const std::string& subject, const std::string& authority,
                    AuthorityType type)
{
    AutoDereference<AuthSubIterator> found(getAuthSubIterator(query, subject, authority, type));
    if (!found)
        return tl::unexpected(
            ResearchFailure{ResearchProblem::NO_ANSWER, NO_HANDLE, subject, authority});
    return found;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
