// The repository's operations on explorers and on the parsers of their data.

#include <tlx/RequestPeer.h>

#include "DiscLog.h"
#include "DiscoveryRepository.h"
#include "ExplorerCall.h"
#include "ExplorerLoader.h"
#include "ExplorerParsers.h"
#include "ExplorerRegistry.h"
#include "PullExplorerCache.h"
#include "PullExplorers.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscoveryRepository";
} // namespace

ExplorerWrapper* DiscoveryRepository::makeWrapper(const Subject* subject, const Explorer* explorer,
                                                  unsigned int priority,
                                                  const Authority* authority) const
{
    bool ready = TLX_ASSERT_AS(subject, "NULL != subject");
    ready = TLX_ASSERT_AS(explorer, "NULL != explorer") && ready;
    const std::unique_ptr<const Authority> local(authority ? nullptr : getLocalAuthority());
    const Authority* const of = authority ? authority : local.get();
    ready = TLX_ASSERT_AS(of, "NULL != authority") && ready;
    return ready ? new ExplorerWrapper(explorer, priority, subject, of) : nullptr;
}

void DiscoveryRepository::registerExplorer(const Subject* subject, const ExplorerPush* explorer,
                                           const unsigned int& priority, const Authority* authority)
{
    DISC_TRACE("DiscoveryRepository::registerExplorer");
    const AutoDereference<ExplorerWrapper> wrapper(
        makeWrapper(subject, explorer, priority, authority));
    if (wrapper)
        m_explorers->registerPush(wrapper);
}

void DiscoveryRepository::registerExplorer(const Subject* subject, const ExplorerPull* explorer,
                                           const unsigned int& priority, const Authority* authority,
                                           bool fromCache)
{
    DISC_TRACE("DiscoveryRepository::registerExplorer");
    const AutoDereference<ExplorerWrapper> wrapper(
        makeWrapper(subject, explorer, priority, authority));
    if (!wrapper)
        return;
    if (fromCache)
        wrapper->setRegistrant(Registrant::STORE, {});
    else if (const RequestPeer* const peer = requestPeer())
        wrapper->setRegistrant(Registrant::PEER, peer->key());
    if (fromCache || !isGenericDSOnMaster())
        m_explorers->registerPull(wrapper);
    else
        m_explorers->registerPull(
            wrapper, [&] { persistToDisk(wrapper); },
            [this](const ExplorerWrapper& givenUp) { removeFromDisk(givenUp); });
}

void DiscoveryRepository::registerExplorerParser(const TlxString& type,
                                                 const ExplorerDataParser* parser)
{
    getExplorerParsers().add(type, parser);
}

ExplorerDataParser* DiscoveryRepository::getRegisteredExplorerParser(const TlxString& type)
{
    return getExplorerParsers().find(type);
}

std::shared_ptr<const ExplorerSet> DiscoveryRepository::pushExplorers() const
{
    return m_explorers->snapshot().push;
}

std::shared_ptr<const ExplorerSet> DiscoveryRepository::pullExplorers() const
{
    return m_explorers->snapshot().pull;
}

ExplorerSet DiscoveryRepository::getPushExplorers() const
{
    return *pushExplorers();
}

ExplorerSet DiscoveryRepository::getPullExplorers() const
{
    return *pullExplorers();
}

DiscoveryIterator* DiscoveryRepository::findPullExplorer(DiscoveryQuery query,
                                                         const ExplorerSet& pullExplorers,
                                                         const std::string& subject,
                                                         const std::string& authority)
{
    return findPullExplorers(query, pullExplorers, subject, authority);
}

void DiscoveryRepository::persistToDisk(const AutoDereference<ExplorerWrapper>& wrapper)
{
    DISC_TRACE("DiscoveryRepository::persistToDisk");
    if (!TLX_ASSERT_AS(isGenericDSOnMaster(), "isGenericDSOnMaster()"))
        return;
    storeExplorer(*wrapper, [this](AutoDereference<Discovery>& out, DiscoveryQuery query,
                                   const Subject& subject, const Authority& authority,
                                   const CollectionAttributes& attributes) {
        newDiscovery(out, query, subject, authority, attributes);
    });
}

void DiscoveryRepository::removeFromDisk(const ExplorerWrapper& wrapper)
{
    DISC_TRACE("DiscoveryRepository::removeFromDisk");
    removeStoredExplorer(wrapper, [this](AutoDereference<Discovery>& out, DiscoveryQuery query,
                                         const Subject& subject, const Authority& authority,
                                         const CollectionAttributes& attributes) {
        newDiscovery(out, query, subject, authority, attributes);
    });
    const std::string subject = wrapper.getSubject()->getSubject().utf8();
    const std::string authority = wrapper.getAuthority()->getName().utf8();
    if (stringContainsWildcard(subject) || stringContainsWildcard(authority))
        return; // the next query for all records removes it
    // A query removes the expired record that it meets.
    const AutoDereference<DiscoveryIterator> expired(
        queryDiscoveries(DQ_DISCOVERY_DATA, subject, authority, AT_REMOTEPULL));
    if (expired)
        const AutoDereference<Discovery> none(expired->getNext());
}

void DiscoveryRepository::loadPullExplorerCache()
{
    DISC_TRACE("DiscoveryRepository::loadPullExplorerCache");
    const AutoDereference<DiscoveryIterator> stored(
        queryDiscoveries(DQ_DISCOVERY_DATA, "*", "*", AT_REMOTEPULL));
    if (!stored)
        return;
    loadStoredExplorers(*stored, [this](const Subject& subject, const ExplorerPull& explorer,
                                        unsigned priority, const Authority& authority) {
        registerExplorer(&subject, &explorer, priority, &authority, true);
    });
}

void DiscoveryRepository::startExplorers(const ExplorerSet& explorers, const EngineContext& context)
{
    DISC_TRACE("DiscoveryRepository::startExplorers");
    for (const AutoDereference<ExplorerWrapper>& wrapper : explorers)
        callExplorer(*wrapper, "startExploration", [&] {
            wrapper->getExplorer()->startExploration(context, *wrapper->getAuthority(),
                                                     *wrapper->getSubject(),
                                                     wrapper->getExplorerContext(), this);
        });
}

void DiscoveryRepository::stopExplorers(const ExplorerSet& explorers)
{
    DISC_TRACE("DiscoveryRepository::stopExplorers");
    for (const AutoDereference<ExplorerWrapper>& wrapper : explorers)
        callExplorer(*wrapper, "stopExploration", [&] {
            wrapper->getExplorer()->stopExploration(
                *wrapper->getAuthority(), *wrapper->getSubject(), wrapper->getExplorerContext());
        });
}

void DiscoveryRepository::loadExplorers()
{
    DISC_TRACE("DiscoveryRepository::loadExplorers");
    EngineContext context(true);
    auto* const loader = getEngineSingleton<ExplorerLoader>(context);
    loader->setRepository(getDiscoveryRepository());
    loader->loadExplorers();
    const ExplorerSnapshot registered = m_explorers->snapshot();
    startExplorers(*registered.push, context);
    startExplorers(*registered.pull, context);
    if (m_shuttingDown) { // the shutdown may have stopped them before they were started
        stopExplorers(*registered.push);
        stopExplorers(*registered.pull);
    } else if (isGenericDSOnMaster()) {
        loadPullExplorerCache();
        startPushTimer();
    } else {
        startRegisterTimer();
    }
    context.close();
}

namespace {

void addStatus(std::vector<ExplorerStatus>& all, const char* kind, const ExplorerSet& set)
{
    for (const AutoDereference<ExplorerWrapper>& wrapper : set) {
        const ExplorerWrapper::Outcome outcome = wrapper->lastOutcome();
        all.push_back({kind, wrapper->getName(), wrapper->getSubject()->getSubject().utf8(),
                       wrapper->getAuthority()->getName().utf8(),
                       wrapper->getAuthority()->getType(), wrapper->getPriority(),
                       wrapper->getLibrary(), outcome.time, outcome.text});
    }
}

} // namespace

std::vector<ExplorerStatus> DiscoveryRepository::getExplorerStatus() const
{
    std::vector<ExplorerStatus> all;
    const ExplorerSnapshot registered = m_explorers->snapshot();
    addStatus(all, "push", *registered.push);
    addStatus(all, "pull", *registered.pull);
    return all;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
