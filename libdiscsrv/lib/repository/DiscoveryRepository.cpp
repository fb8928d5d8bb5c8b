#include "DiscoveryRepository.h"

#include <vector>

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include "CombiningIterator.h"
#include "DiscDB.h"
#include "DiscLog.h"
#include "ExplorerLoader.h"
#include "ExplorerParsers.h"
#include "ExplorerRegistry.h"
#include "PeerLink.h"
#include "PushSchedule.h"
#include "RefreshTask.h"
#include "RemoteDB.h"
#include "RemoteQueries.h"
#include "ServiceConnection.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscoveryRepository";

/// Uses a loader of its own, because another thread may use the start-up's loader now.
void loadParserLibraries()
{
    EngineContext context(true);
    auto* const loader = getEngineSingleton<ExplorerLoader>(context);
    loader->setRepository(getDiscoveryRepository());
    loader->loadExplorerParsers();
    context.close();
}

} // namespace

/// Gives the timers the operations of the repository that they need.
class DiscoveryRepository::ScheduleOwner : public PushScheduleOwner
{
  public:
    explicit ScheduleOwner(DiscoveryRepository& repository) : m_repository(repository) {}
    bool isShuttingDown() const override { return m_repository.isShuttingDown(); }
    std::shared_ptr<const ExplorerSet> getPushExplorers() const override
    {
        return m_repository.pushExplorers();
    }
    std::shared_ptr<const ExplorerSet> getPullExplorers() const override
    {
        return m_repository.pullExplorers();
    }
    void getMasterServerName(TlxHostname& out) const override
    {
        m_repository.getMasterServerName(out);
    }
    Remote::DiscoveryService_ptr connectToMaster(const TlxHostname& master) const override
    {
        return m_repository.connectToRemoteDiscoveryService(master, DISCOVERY_SERVICE);
    }
    TlxString getOrbServiceName() const override { return m_repository.getOrbServiceName(); }
    DiscoveryFactory* getFactory() override { return &m_repository; }
    void startPushTimer() override { m_repository.startPushTimer(); }

  private:
    DiscoveryRepository& m_repository;
};

DiscoveryRepository* getDiscoveryRepository()
{
    return ACE_Singleton<DiscoveryRepository, ACE_Recursive_Thread_Mutex>::instance();
}

DiscoveryRepository::DiscoveryRepository() : DiscoveryRepository(getPeerLink()) {}

DiscoveryRepository::DiscoveryRepository(PeerLink& link)
    : m_link(link),
      m_explorers(std::make_unique<ExplorerRegistry>(MAX_EXPLORERS, MAX_EXPLORERS_OF_PEER)),
      m_scheduleOwner(std::make_unique<ScheduleOwner>(*this)),
      m_schedule(std::make_unique<PushSchedule>(*m_scheduleOwner))
{
    getExplorerParsers().setLoader(&loadParserLibraries);
}

DiscoveryRepository::~DiscoveryRepository() = default;

void DiscoveryRepository::setDiscoveryFramework(const HostedService* framework)
{
    m_link.setService(framework);
}

TlxString DiscoveryRepository::getDSName() const
{
    const HostedService* const service = m_link.service();
    return service ? TlxString(service->getName()) : TlxString();
}

DiscoveryServiceType DiscoveryRepository::getDSType() const
{
    const HostedService* const service = m_link.service();
    return service ? service->getType() : DST_NO_SERVANT;
}

TlxString DiscoveryRepository::getOrbServiceName() const
{
    return m_link.ownServiceName();
}

Orb* DiscoveryRepository::getOrb() const
{
    return m_link.orb();
}

PortableServer::POA_ptr DiscoveryRepository::getPOA() const
{
    const HostedService* const service = m_link.service();
    return service ? service->getPOA() : PortableServer::POA::_nil();
}

void DiscoveryRepository::announceShutdown()
{
    m_link.announceShutdown();
}

bool DiscoveryRepository::isShuttingDown() const
{
    return m_link.isShuttingDown();
}

bool DiscoveryRepository::isGenericDS() const
{
    return getDSType() == DST_GENERIC;
}

bool DiscoveryRepository::isMaster() const
{
    // If a caller has set the master's address, the configuration does not count.
    return !m_link.isMasterGiven() && getRemoteDiscoveryDatabase()->isMaster();
}

bool DiscoveryRepository::isGenericDSOnMaster() const
{
    return isMaster() && isGenericDS();
}

// Compat(read-question-mark): peers may read by a name that contains "?". Only "*" is refused.
bool DiscoveryRepository::stringContainsWildcard(const std::string& text)
{
    return text.find('*') != std::string::npos;
}

void DiscoveryRepository::getMasterServerName(TlxHostname& out) const
{
    m_link.getMasterServerName(out);
}

Remote::DiscoveryService_ptr
DiscoveryRepository::connectToRemoteDiscoveryService(const TlxHostname& host,
                                                     const char* serviceName) const
{
    return m_link.connect(host, serviceName);
}

DiscoveryIterator* DiscoveryRepository::queryRemoteDiscoveries(DiscoveryQuery query,
                                                               const std::string& subject,
                                                               const std::string& authority,
                                                               AuthorityType type)
{
    DISC_TRACE("DiscoveryRepository::queryRemoteDiscoveries");
    TlxHostname master;
    getMasterServerName(master);
    return forwardQuery(m_link, master, query, subject, authority, type);
}

Authority* DiscoveryRepository::getLocalAuthority() const
{
    DISC_TRACE("DiscoveryRepository::getLocalAuthority");
    return new Authority(TlxHostname::local().text().utf8(), AT_EXTSRC);
}

DiscoveryIterator* DiscoveryRepository::queryDiscoveries(DiscoveryQuery query,
                                                         const std::string& subject,
                                                         const std::string& authority,
                                                         AuthorityType type)
{
    DISC_TRACE("DiscoveryRepository::queryDiscoveries");
    if (!TLX_ASSERT_AS(m_link.hasService(), "m_discoveryFramework"))
        return nullptr;
    if (!isGenericDSOnMaster())
        return queryRemoteDiscoveries(query, subject, authority, type);

    std::vector<AutoDereference<DiscoveryIterator>> iterators;
    if (type != AT_REMOTEPULL)
        if (DiscoveryIterator* pulled =
                findPullExplorer(query, *pullExplorers(), subject, authority))
            iterators.emplace_back(pulled);
    AutoDereference<DiscoveryIterator> stored(getDiscoveryDBDatabase()->getIterator(query));
    if (!stored) {
        DISC_WARN("No database iterator found");
        return nullptr;
    }
    stored->setAuthority(authority, type);
    stored->setSubject(subject);
    iterators.push_back(stored);
    return new CombiningIterator(type, authority, subject, iterators);
}

void DiscoveryRepository::newDiscovery(AutoDereference<Discovery>& out, DiscoveryQuery query,
                                       const Subject& subject, const Authority& authority,
                                       const CollectionAttributes& attributes) const
{
    DISC_TRACE("DiscoveryRepository::newDiscovery");
    out.reset();
    if (isGenericDSOnMaster())
        out.reset(getDiscoveryDBDatabase()->newDiscovery(query));
    else
        out.reset(getRemoteDiscoveryDatabase()->newDiscovery(query));
    if (out) {
        out->setSubject(new Subject(subject));
        out->setAuthority(new Authority(authority));
        out->setAttributes(new CollectionAttributes(attributes));
    }
    (void)TLX_ASSERT_AS(out, "*discovery");
}

void DiscoveryRepository::shutdown()
{
    DISC_TRACE("DiscoveryRepository::shutdown");
    if (!TLX_ASSERT(!m_shuttingDown))
        return;
    m_shuttingDown = true;
    m_link.announceShutdown();
    m_explorers->close();
    m_schedule->close();
    DiscoveriesThreadMgr* const threads = getDiscoveriesThreadMgr();
    if (threads->getRunningThreads() > 0)
        threads->wait();
    m_schedule->cancel();
    const ExplorerSnapshot registered = m_explorers->takeAll();
    stopExplorers(*registered.push);
    stopExplorers(*registered.pull);
}

void DiscoveryRepository::fini()
{
    DISC_TRACE("DiscoveryRepository::fini");
    if (TLX_ASSERT(m_shuttingDown))
        m_schedule->wait();
}

void DiscoveryRepository::startPushTimer()
{
    m_schedule->startPush();
}

void DiscoveryRepository::startRegisterTimer()
{
    m_schedule->startRegister();
}

void DiscoveryRepository::triggerPushTimer()
{
    m_schedule->trigger();
}

TlxObjTime DiscoveryRepository::getNextPush() const
{
    return m_schedule->nextPush();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
