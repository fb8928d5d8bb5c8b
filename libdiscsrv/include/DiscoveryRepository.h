#pragma once
// The repository of a process. It answers queries and makes new discoveries.
//
// Only the master's generic service uses storage of its own. Any other host asks the master. A
// failed operation logs the reason and returns null or does nothing; nothing is thrown. Any thread
// may call. The framework is set before the first use.

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

/// One registered explorer, as people see it.
struct ExplorerStatus
{
    const char* kind; ///< "push" or "pull"
    std::string name;
    std::string subject;
    std::string authority;
    AuthorityType type;
    unsigned priority;
    std::string library; ///< empty for an explorer of the service itself
    TlxObjTime last;     ///< time of the last push or pull; zero for none
    std::string outcome; ///< of that push or pull
};

/// A façade. ExplorerRegistry and ExplorerParsers keep the explorers, PushSchedule keeps the
/// timers, and PeerLink connects to other hosts.
///
/// The repository calls its own virtual operations virtually, so a derived repository can change
/// the routing.
///
/// Plug-ins and other hosts register explorers here. If two registrations have the same authority
/// and subject, the higher priority wins. A pull registration also replaces one of the same
/// priority; a push registration does not. The repository holds no lock while an explorer runs. It
/// does not use the lock that it inherits.
class DISCSRV_EXPORT DiscoveryRepository : public virtual DiscoveryFactory,
                                           public virtual TlxLockable
{
  public:
    // Compat(name-ltd): programs know the comparators by these names.
    using ltdExplorerWrapper = LtdExplorerWrapper;
    using ltdExplorerQuery = LtdExplorerQuery;

    /// Uses the process's link to other hosts.
    DiscoveryRepository();
    /// @param link must outlive this object.
    explicit DiscoveryRepository(PeerLink& link);

    /// Makes a new record: on disk for the master's generic service, on the master for any other
    /// service. Releases the previous object in out; on failure out is empty. Copies subject,
    /// authority and attributes.
    virtual void newDiscovery(AutoDereference<Discovery>& out, DiscoveryQuery query,
                              const Subject& subject, const Authority& authority,
                              const CollectionAttributes& attributes) const;

    /// Finds the matching records. "*" or an empty name matches any. Returns a new iterator, which
    /// the caller releases, or null on failure.
    virtual DiscoveryIterator* queryDiscoveries(DiscoveryQuery query, const std::string& subject,
                                                const std::string& authority, AuthorityType type);

    /// True if this host is the master. The first call looks that up, which may take 5 seconds.
    virtual bool isMaster() const;
    /// True if this is the generic discovery service.
    virtual bool isGenericDS() const;
    virtual bool isGenericDSOnMaster() const;
    virtual DiscoveryServiceType getDSType() const;

    /// Returns the master's name. If the configuration has none, it logs that and the name is
    /// empty.
    virtual void getMasterServerName(TlxHostname& out) const;

    ~DiscoveryRepository() override;

    /// Lets the push timer run within a minute. Does nothing without a push timer.
    virtual void triggerPushTimer();

    /// Makes the authority of this host's own discoveries. The caller becomes its owner.
    virtual Authority* getLocalAuthority() const;

    // The walks over explorers take no lock, so the sets must not change during a walk.
    virtual void startExplorers(const ExplorerSet& explorers, const EngineContext& context);
    virtual void stopExplorers(const ExplorerSet& explorers);

    /// Makes a push timer for the current push explorers, which runs at once. The previous push
    /// timer keeps its own schedule.
    virtual void startPushTimer();
    /// Makes the timer that registers this host's pull explorers with the master. It runs within
    /// five minutes.
    virtual void startRegisterTimer();

    /// Sends a query to the master. Returns a new iterator, which the caller releases, or null on
    /// failure.
    virtual DiscoveryIterator* queryRemoteDiscoveries(DiscoveryQuery query,
                                                      const std::string& subject,
                                                      const std::string& authority,
                                                      AuthorityType type);

    /// True if a name contains a "*".
    static bool stringContainsWildcard(const std::string& text);

    // Both take a reference to the explorer and copy subject and authority. A null authority stands
    // for this host's own. A registration beyond MAX_EXPLORERS, or during a shutdown, is logged and
    // dropped. A registration that loses against a higher priority is dropped without a log line.
    void registerExplorer(const Subject* subject, const ExplorerPush* explorer,
                          const unsigned int& priority, const Authority* authority);
    /// @param fromCache true if the registration comes from the store. Otherwise the master's
    /// generic service stores an explorer of another host, so that it is still registered after a
    /// restart.
    void registerExplorer(const Subject* subject, const ExplorerPull* explorer,
                          const unsigned int& priority, const Authority* authority, bool fromCache);
    /// Keeps a reference to the parser until the process ends. The first parser for a type stays.
    void registerExplorerParser(const TlxString& type, const ExplorerDataParser* parser);
    /// Returns the parser of an explorer's data blocks, or the default one. The caller releases the
    /// reference. The first call loads the parsers of the plug-ins; other callers wait for that.
    ExplorerDataParser* getRegisteredExplorerParser(const TlxString& type);
    static constexpr std::size_t MAX_EXPLORERS = 10000; ///< of each kind
    /// Pull explorers of one peer. Beyond it, the peer's own oldest one goes.
    static constexpr std::size_t MAX_EXPLORERS_OF_PEER = MAX_EXPLORERS / 4;

    // Copies of the sets.
    ExplorerSet getPushExplorers() const;
    ExplorerSet getPullExplorers() const;
    // The current sets; never null. These copy nothing and wait for no registration.
    std::shared_ptr<const ExplorerSet> pushExplorers() const;
    std::shared_ptr<const ExplorerSet> pullExplorers() const;

    /// Finds the records that pull explorers can produce. It takes the first explorer in the set
    /// that matches, and all after it, whether they match or not. Returns a new iterator, which the
    /// caller releases, or null if none matches. The names may hold wildcards.
    DiscoveryIterator* findPullExplorer(DiscoveryQuery query, const ExplorerSet& pullExplorers,
                                        const std::string& subject, const std::string& authority);

    /// Returns the discovered hosts: the authorities that publish filters for volumes or file
    /// systems. It logs a record that it cannot read, and leaves it out.
    std::set<TlxString> getDiscoveredClientList();

    /// Stores an explorer of another host, so that it is still registered after a restart. Ignores
    /// any other explorer. Call it on the master only.
    void persistToDisk(const AutoDereference<ExplorerWrapper>& wrapper);

    /// Removes what persistToDisk wrote.
    void removeFromDisk(const ExplorerWrapper& wrapper);

    /// One entry for each registered explorer.
    std::vector<ExplorerStatus> getExplorerStatus() const;
    /// The time of the next push; zero if none is scheduled.
    TlxObjTime getNextPush() const;

    /// Takes a reference and drops the previous one. With null it only drops the previous one.
    void setDiscoveryFramework(const HostedService* framework);

    // These ask the framework. Without one each fails an assertion and returns an empty value, 0 or
    // null.
    TlxString getDSName() const;
    TlxString getOrbServiceName() const;
    Orb* getOrb() const;
    /// The POA of the servants. Do not release it.
    PortableServer::POA_ptr getPOA() const;

    /// Connects to the discovery service of another host. Returns nil on failure. The caller
    /// releases the reference.
    Remote::DiscoveryService_ptr connectToRemoteDiscoveryService(const TlxHostname& host,
                                                                 const char* serviceName) const;

    /// Loads the explorers, starts them, and starts the timers.
    void loadExplorers();

    /// Makes long operations give up, so that the shutdown does not wait for them. New
    /// registrations are dropped.
    void announceShutdown();
    /// Ends the timers, stops the explorers and removes them. Call it once.
    void shutdown();
    /// Waits until the timers are destroyed. Call it after shutdown.
    void fini();
    /// True after announceShutdown or shutdown.
    bool isShuttingDown() const;

  private:
    class ScheduleOwner;

    /// Makes a new entry, which the caller releases. If a part is missing it fails an assertion and
    /// returns null.
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
