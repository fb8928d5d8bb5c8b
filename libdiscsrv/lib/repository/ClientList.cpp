#include "DiscLog.h"
#include "DiscoveryRepository.h"
#include "ItemQuery.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../Researcher";

/// Adds the hosts that publish what a subject can be filtered by; false when no host does. Ends at
/// the next record when the service does.
bool addClients(const DiscoveryRepository& repository, const char* subject,
                std::set<TlxString>& clients)
{
    const AutoDereference<AuthSubIterator> all(
        getAuthSubIterator(DQ_FILTER_DATA, subject, "*", AT_ANYANDALL));
    bool found = false;
    while (all && !repository.isShuttingDown()) {
        const AutoDereference<CollectionItemIterator> items(
            all->getNextCollectionItemIterator(nullptr));
        if (!items)
            break;
        if (!items->getAuthority())
            continue;
        clients.insert(items->getAuthority()->getName());
        found = true;
    }
    return found;
}

} // namespace

std::set<TlxString> DiscoveryRepository::getDiscoveredClientList()
{
    // Under the name that readers of the log know.
    DISC_TRACE("Researcher::getDiscoveredClientList");
    std::set<TlxString> clients;
    if (!addClients(*this, CLIENT_SUBJECTS[0], clients) && !isShuttingDown())
        DISC_LOG(4, "No windows clients found");
    if (!addClients(*this, CLIENT_SUBJECTS[1], clients) && !isShuttingDown())
        DISC_LOG(4, "No unix clients found");
    return clients;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
