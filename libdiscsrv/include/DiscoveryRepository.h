#pragma once
// The process-wide repository: where queries are answered from, and where new discoveries go.
//
// Only the master's generic service answers from its own storage; any other host asks the master.
// Failures are logged and answered with null or no effect; no exception leaves an operation. Any
// thread may call; the framework is set before anything else reaches the repository.

#include <atomic>
#include <set>
#include <string>

#include <tlx/Corba.h>
#include <tlx/Hostname.h>
#include <tlx/Lockable.h>

#include "DiscData.h"
#include "DiscoveryFramework.h"
#include "Explorer.h"

namespace Veltrane::Quillmark::Tlx {
class Orb;
}

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Every internal use of a virtual operation is a virtual call, so that a derived repository can
/// change the routing.
class DISCSRV_EXPORT DiscoveryRepository : public virtual DiscoveryFactory, public TlxLockable
{
  public:
    DiscoveryRepository();

    /// A new record in the store that this service writes to: the disk on the master's generic
    /// service, the master anywhere else. Releases what out held; out is empty on failure. Subject,
    /// authority and attributes are copied.
    virtual void newDiscovery(AutoDereference<Discovery>& out, DiscoveryQuery query,
                              const Subject& subject, const Authority& authority,
                              const CollectionAttributes& attributes) const;

    /// Records that match; "*" or an empty name matches any. A new iterator for the caller to
    /// release, or null.
    virtual DiscoveryIterator* queryDiscoveries(DiscoveryQuery query, const std::string& subject,
                                                const std::string& authority, AuthorityType type);

    /// Whether this host is the master. Found out on first use, which may take 5 seconds.
    virtual bool isMaster() const;
    /// Whether this is the generic discovery service.
    virtual bool isGenericDS() const;
    virtual bool isGenericDSOnMaster() const;
    virtual DiscoveryServiceType getDSType() const;

    /// The master's name from the configuration; empty (and logged) when none is set.
    virtual void getMasterServerName(TlxHostname& out) const;

    ~DiscoveryRepository() override;

    /// Asks for a push soon. Without a push timer nothing happens.
    virtual void triggerPushTimer();

    /// The authority of what this host itself finds out: a new object that the caller
    /// owns.
    virtual Authority* getLocalAuthority() const;

    /// Asks the master. Null on failure; a new iterator for the caller to release.
    virtual DiscoveryIterator* queryRemoteDiscoveries(DiscoveryQuery query,
                                                      const std::string& subject,
                                                      const std::string& authority,
                                                      AuthorityType type);

    /// Whether a name holds a "*".
    static bool stringContainsWildcard(const std::string& text);

    /// The records that this host's own pull explorers can produce; null when none matches.
    DiscoveryIterator* findPullExplorer(DiscoveryQuery query, const std::string& subject,
                                        const std::string& authority);

    /// Takes a reference and drops the one held before.
    void setDiscoveryFramework(const DiscoveryFramework* framework);

    // What the framework knows. Each asserts that there is one, and answers an empty value, 0 or
    // null without it.
    TlxString getDSName() const;
    TlxString getOrbServiceName() const;
    Orb* getOrb() const;
    /// Where servants are activated; not to be released.
    PortableServer::POA_ptr getPOA() const;

    /// Start-up: brings in the producers.
    void loadExplorers();

    /// Ends what runs in the background; once.
    void shutdown();
    /// Waits until nothing in the background is left; after shutdown.
    void fini();

  private:
    AutoDereference<const DiscoveryFramework> m_discoveryFramework;
    std::atomic<bool> m_shuttingDown{false};
};

/// The repository of this process.
DISCSRV_EXPORT DiscoveryRepository* getDiscoveryRepository();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
