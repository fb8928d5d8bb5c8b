#pragma once
// A pull explorer that another host registered.

#include <tlx/Hostname.h>

#include "Explorer.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Reads from the service of the host that has the data. Immutable; any thread may use it.
class DISCSRV_EXPORT RemoteExplorerPull : public virtual ExplorerPull
{
  public:
    /// @param type the authority type that remote queries carry.
    // Compat(remote-pull-arguments): programs pass subject and authority. They are kept and not
    // used.
    RemoteExplorerPull(const TlxString& serviceName, const TlxString& sourceHost,
                       const TlxString& subject, const TlxString& authority, AuthorityType type);
    ~RemoteExplorerPull() override;

    const char* getExplorerName() const override;
    bool collectionRequested(DiscoveryQuery query, const Authority& authority,
                             const Subject& subject,
                             AutoDereference<TLXRefCounted>& explorerContext, const char* text,
                             CollectionData* data) override;

    const TlxString& getServiceName() const { return m_serviceName; }
    const TlxHostname& getSourceHost() const { return m_sourceHost; }
    AuthorityType getAuthorityType() const { return m_type; }

  private:
    /// Returns the only matching record of the other host. If none or several match, it logs that
    /// and returns null.
    AutoDereference<Discovery> findSource(DiscoveryQuery query, const Authority& authority,
                                          const Subject& subject) const;

    const TlxString m_serviceName;
    const TlxString m_subject;
    const TlxString m_authority;
    const AuthorityType m_type;
    TlxHostname m_sourceHost;
};

/// Copies the rest of one payload to the end of another, up to the first failed read.
void copyCollection(const CollectionData& from, const CollectionData& to);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
