#pragma once
// The process-wide repository: where queries are answered from, and where new discoveries go.
//
// Only the master's generic service answers from its own storage; any other host asks the master.
// Failures are logged and answered with null or no effect; no exception leaves an operation. Any
// thread may call; the framework is set before anything else reaches the repository.

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <tlx/Corba.h>
#include <tlx/Engine.h>
#include <tlx/Hostname.h>
#include <tlx/Lockable.h>

#include "DefaultExplorerDataParser.h"
#include "DiscData.h"
#include "ExplorerWrapper.h"
#include "HostedService.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

class ExplorerRegistry;
class PeerLink;
class PushSchedule;

/// What people see of one registered explorer.
struct ExplorerStatus
{
    const char* kind; ///< "push" or "pull"
    std::string name;
    std::string subject;
    std::string authority;
    AuthorityType type;
    unsigned priority;
    std::string library; ///< empty for the service's own
    TlxObjTime last;     ///< of the last push or pull; zero when there was none
    std::string outcome; ///< how that went
};

/// A façade: the explorers are an ExplorerRegistry's and an ExplorerParsers', the timers a
/// PushSchedule's, the way to other hosts a PeerLink's.
///
/// Every internal use of a virtual operation is a virtual call, so that a derived repository can
/// change the routing.
///
/// Explorers are registered here by plug-ins and by other hosts. Of two registrations for the same
/// authority and subject the one of higher priority wins. A pull registration also replaces one of
/// its own priority, a push registration does not. No lock is held while an explorer runs. The lock
/// that the repository inherits guards nothing in it.
class DISCSRV_EXPORT DiscoveryRepository : public virtual DiscoveryFactory,
                                           public virtual TlxLockable
{
  public:
    using ltdExplorerWrapper = LtdExplorerWrapper;
    using ltdExplorerQuery = LtdExplorerQuery;

    /// Uses the process's link to other hosts.
    DiscoveryRepository();
    /// @param link outlives this object.
    /// @param mostExplorers of each kind; beyond it registrations are dropped.
    explicit DiscoveryRepository(PeerLink& link, std::size_t mostExplorers = MAX_EXPLORERS);

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

    /// Has the push timer run within a minute. Without a push timer nothing happens.
    virtual void triggerPushTimer();

    /// The authority of what this host itself finds out: a new object that the caller
    /// owns.
    virtual Authority* getLocalAuthority() const;

    // The walks over explorers take no lock, so the caller hands them sets that do not change.
    virtual void startExplorers(const ExplorerSet& explorers, const EngineContext& context);
    virtual void stopExplorers(const ExplorerSet& explorers);

    /// Makes a push timer for the push explorers of this moment, and has it run at once. The timer
    /// before it keeps its own schedule.
    virtual void startPushTimer();
    /// Makes the timer that registers this host's pull explorers with the master, and has it run
    /// within five minutes.
    virtual void startRegisterTimer();

    /// Asks the master. Null on failure; a new iterator for the caller to release.
    virtual DiscoveryIterator* queryRemoteDiscoveries(DiscoveryQuery query,
                                                      const std::string& subject,
                                                      const std::string& authority,
                                                      AuthorityType type);

    /// Whether a name holds a "*".
    static bool stringContainsWildcard(const std::string& text);

    // Registration. Any thread; the explorer gains a reference, subject and authority are copied.
    // Without an authority (null) it is this host's own. Registrations beyond MAX_EXPLORERS, and
    // those that come once the service is shutting down, are logged and dropped; one that loses
    // against a higher priority is dropped and not logged.
    void registerExplorer(const Subject* subject, const ExplorerPush* explorer,
                          const unsigned int& priority, const Authority* authority);
    /// @param fromCache whether it was read back from the store; otherwise, on the master's generic
    /// service, an explorer of another host is stored, so that a restart finds it again.
    void registerExplorer(const Subject* subject, const ExplorerPull* explorer,
                          const unsigned int& priority, const Authority* authority, bool fromCache);
    /// Keeps a reference to the parser, for the whole process; the first one for a type stays.
    void registerExplorerParser(const TlxString& type, const ExplorerDataParser* parser);
    /// The parser of an explorer's data blocks, or the default one: a reference for the caller to
    /// release. The first call loads the parsers of the plug-ins; others wait for that.
    ExplorerDataParser* getRegisteredExplorerParser(const TlxString& type);
    static constexpr std::size_t MAX_EXPLORERS = 10000; ///< of each kind

    // Copies of the sets.
    ExplorerSet getPushExplorers() const;
    ExplorerSet getPullExplorers() const;
    // The sets of this moment; never null. Nothing is copied, and no registration is waited for.
    std::shared_ptr<const ExplorerSet> pushExplorers() const;
    std::shared_ptr<const ExplorerSet> pullExplorers() const;

    /// What pull explorers can produce: the first one in the set whose names match, and all after
    /// it, whether or not they match. Null when none matches; a new iterator for the caller to
    /// release. The names may hold wildcards.
    DiscoveryIterator* findPullExplorer(DiscoveryQuery query, const ExplorerSet& pullExplorers,
                                        const std::string& subject, const std::string& authority);

    /// The hosts that were discovered: the names of all authorities that tell what their volumes or
    /// file systems can be filtered by, each once. What cannot be read is logged and left out.
    std::set<TlxString> getDiscoveredClientList();

    /// Stores an explorer of another host, so that it is found again after a restart; does nothing
    /// for any other. On the master only.
    void persistToDisk(const AutoDereference<ExplorerWrapper>& wrapper);

    /// One entry for each registered explorer.
    std::vector<ExplorerStatus> getExplorerStatus() const;
    /// When the push timer runs next; zero when it is not scheduled.
    TlxObjTime getNextPush() const;

    /// Takes a reference and drops the one held before. Null drops only.
    void setDiscoveryFramework(const HostedService* framework);

    // What the framework knows. Each reports a missing framework as a broken invariant, and then
    // answers an empty value, 0 or null.
    TlxString getDSName() const;
    TlxString getOrbServiceName() const;
    Orb* getOrb() const;
    /// Where servants are activated; not to be released.
    PortableServer::POA_ptr getPOA() const;

    /// The discovery service of another host; nil on failure, otherwise the caller releases it.
    Remote::DiscoveryService_ptr connectToRemoteDiscoveryService(const TlxHostname& host,
                                                                 const char* serviceName) const;

    /// Start-up: loads the explorers, starts them, and starts the timers.
    void loadExplorers();

    /// The service is about to end: what takes long is given up from now on, so that nobody waits
    /// for it. Registrations are dropped.
    void announceShutdown();
    /// Ends the timers, stops the explorers and forgets them; once.
    void shutdown();
    /// Waits until the timers are gone; after shutdown.
    void fini();
    /// Announced or begun.
    bool isShuttingDown() const;

  private:
    class ScheduleOwner;

    /// A new entry for the caller to release; null, and reported, when something is missing.
    ExplorerWrapper* makeWrapper(const Subject* subject, const Explorer* explorer,
                                 unsigned int priority, const Authority* authority) const;
    void loadPullExplorerCache();

    PeerLink& m_link;
    const std::unique_ptr<ExplorerRegistry> m_explorers;
    const std::unique_ptr<ScheduleOwner> m_scheduleOwner;
    const std::unique_ptr<PushSchedule> m_schedule;
    std::atomic<bool> m_shuttingDown{false};
};

/// The repository of this process.
DISCSRV_EXPORT DiscoveryRepository* getDiscoveryRepository();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
