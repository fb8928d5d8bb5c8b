#include "RemoteExplorerPull.h"

#include "BoundReference.h"
#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../Explorer";
} // namespace

RemoteExplorerPull::RemoteExplorerPull(const TlxString& serviceName, const TlxString& sourceHost,
                                       const TlxString& subject, const TlxString& authority,
                                       AuthorityType type)
    : m_serviceName(serviceName), m_subject(subject), m_authority(authority), m_type(type)
{
    m_sourceHost.setHostname(sourceHost.utf8());
}

RemoteExplorerPull::~RemoteExplorerPull() = default;

const char* RemoteExplorerPull::getExplorerName() const
{
    return "RemotePullExplorer";
}

bool RemoteExplorerPull::collectionRequested(DiscoveryQuery, const Authority&, const Subject&,
                                             AutoDereference<TLXRefCounted>& explorerContext,
                                             const char*, CollectionData*)
{
    DISC_TRACE("RemotePullExplorer::collectionRequested");
    haltUnlessBound(&explorerContext);
    DISC_LOG(1, "Explorers of other hosts are not asked yet: " << m_serviceName << " on "
                                                               << m_sourceHost.text());
    return false;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
