#include "RemoteExplorerPull.h"

#include <tlx/Servant.h>

#include "BoundReference.h"
#include "DiscLog.h"
#include "DiscMem.h"
#include "PeerLink.h"
#include "PullShare.h"
#include "RemoteDB.h"
#include "ServiceCounters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../Explorer";
constexpr std::size_t TRANSFER_BYTES = 1024;

PullShare& pulls()
{
    static PullShare share(MemCollectionData::MAX_PULLS);
    return share;
}
} // namespace

RemoteExplorerPull::RemoteExplorerPull(const TlxString& serviceName, const TlxString& sourceHost,
                                       const TlxString& subject, const TlxString& authority,
                                       AuthorityType type)
    : m_serviceName(serviceName), m_subject(subject), m_authority(authority), m_type(type)
{
    m_sourceHost.setHostname(sourceHost.utf8());
}

RemoteExplorerPull::~RemoteExplorerPull() = default;

// Compat(log-remote-pull): log readers know the class by this name.
const char* RemoteExplorerPull::getExplorerName() const
{
    return "RemotePullExplorer";
}

bool RemoteExplorerPull::collectionRequested(DiscoveryQuery query, const Authority& authority,
                                             const Subject& subject,
                                             AutoDereference<TLXRefCounted>& explorerContext,
                                             const char* text, CollectionData* data)
{
    DISC_TRACE("RemotePullExplorer::collectionRequested");
    haltUnlessBound(&explorerContext);
    const std::string host = m_sourceHost.text().utf8();
    const PullShare::Pull running(pulls(), host);
    if (!running.isAdmitted()) {
        countService(ServiceCounter::PULLS_TURNED_AWAY);
        DISC_WARN("Host " << host << " is not asked: " << pulls().runningFrom(host)
                          << " pulls from it run already, and others need the free places");
        return false;
    }
    AutoDereference<Discovery> source = findSource(query, authority, subject);
    if (!source)
        return false;
    // Compat(log-remote-pull): log readers know the two texts with source and target exchanged.
    if (!isSuccess(source->open(OM_READ, text))) {
        DISC_WARN("Failed to target open collection data");
        return false;
    }
    if (!data->open(OM_UPDATE, "")) {
        DISC_WARN("Failed to source open colection data");
        return false;
    }
    // Compat(pull-opened-twice): peers see every pull twice, the second time without the filter.
    // The copy takes the second one, so the filter is lost here.
    if (!isSuccess(source->open(OM_READ, "")) || !data->open(OM_UPDATE, ""))
        return false;
    copyCollection(*source->getCollectionData(), *data);
    return true;
}

AutoDereference<Discovery> RemoteExplorerPull::findSource(DiscoveryQuery query,
                                                          const Authority& authority,
                                                          const Subject& subject) const
{
    const Remote::DiscoveryService_var service =
        getPeerLink().connect(m_sourceHost, m_serviceName.c_str());
    if (CORBA::is_nil(service)) {
        DISC_WARN("Failed to connect to discovery service");
        return {};
    }
    const std::string authorityName = authority.getName().utf8();
    const std::string subjectName = subject.getSubject().utf8();
    AutoDereference<RemoteDiscoveryIterator> iterator;
    std::string failure;
    try {
        Remote::DiscoveryIterator_var found =
            service->queryDiscoveries(query, m_type, authorityName.c_str(), subjectName.c_str());
        iterator.reset(
            new RemoteDiscoveryIterator(m_type, subjectName, authorityName, found._retn()));
        failure = iterator->getFailure();
    } catch (const CORBA::Exception& e) {
        failure = describeException(e);
    }
    if (!failure.empty()) {
        DISC_WARN("Caught CORBA Exception while querying for discoveries: " << failure);
        return {};
    }
    AutoDereference<Discovery> first(iterator->getNext());
    if (!first) {
        DISC_WARN("No records found!");
        return {};
    }
    const AutoDereference<Discovery> second(iterator->getNext());
    if (second) {
        DISC_WARN("Too many records found");
        return {};
    }
    return first;
}

void copyCollection(const CollectionData& from, const CollectionData& to)
{
    char buffer[TRANSFER_BYTES];
    std::size_t count = 0;
    while ((count = from.readCollection(sizeof buffer, buffer)) > 0 && count <= sizeof buffer)
        to.writeCollection(count, buffer);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
