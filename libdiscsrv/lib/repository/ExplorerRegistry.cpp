// The repository's registry of explorers and of the parsers of their data.

#include "DiscLog.h"
#include "DiscMem.h"
#include "DiscoveryRepository.h"
#include "ExplorerCall.h"
#include "ExplorerLoader.h"

#include <tlx/Uri.h>
#include <tlx/Wildcard.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscoveryRepository";

bool matches(const TlxString& pattern, const TlxString& name)
{
    return wildcardcmp(pattern.c_str(), name.c_str(), 0) == 0;
}

/// What a registration takes out of the sets. It goes when the lock is free: with the last
/// reference an explorer's own code runs.
using Removed = std::vector<AutoDereference<ExplorerWrapper>>;

/// Removes the entry that a new one is equal to. False, and nothing changed, when that entry keeps
/// its place.
template <class Keeps>
bool makeRoom(ExplorerSet& set, const AutoDereference<ExplorerWrapper>& wrapper, Keeps keeps,
              Removed& removed)
{
    const auto entry = set.find(wrapper);
    if (entry == set.end())
        return true;
    if (keeps((*entry)->getPriority(), wrapper->getPriority()))
        return false;
    removed.push_back(*entry);
    set.erase(entry);
    return true;
}

/// Puts an entry in, unless one that is equal to it keeps its place. The order is none in the
/// strict sense: what an insertion takes for equal a search before it may have missed.
template <class Keeps>
bool place(ExplorerSet& set, const AutoDereference<ExplorerWrapper>& wrapper, Keeps keeps,
           Removed& removed)
{
    for (;;) {
        const auto [entry, inserted] = set.insert(wrapper);
        if (inserted)
            return true;
        if (keeps((*entry)->getPriority(), wrapper->getPriority()))
            return false;
        removed.push_back(*entry);
        set.erase(entry);
    }
}

} // namespace

bool DiscoveryRepository::mayRegister(const ExplorerSet& set,
                                      const AutoDereference<ExplorerWrapper>& wrapper) const
{
    DISC_TRACE("DiscoveryRepository::registerExplorer");
    if (m_shuttingDown) {
        DISC_LOG(1, "An explorer that registers during the shutdown is dropped");
        return false;
    }
    // The order is none in the strict sense, so one host may come to have several entries.
    if (set.size() >= MAX_EXPLORERS && set.find(wrapper) == set.end()) {
        DISC_LOG(1, "There are " << MAX_EXPLORERS << " explorers already, another one is dropped");
        return false;
    }
    return true;
}

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
    if (!wrapper)
        return;
    Removed removed;
    const LockableGuard lockableGuard(*this);
    if (!TLX_ASSERT(lockableGuard.locked()) || !mayRegister(m_pushExplorers, wrapper))
        return;
    // A push never takes the place of its own priority.
    const auto keeps = [](unsigned there, unsigned coming) { return there >= coming; };
    if (makeRoom(m_pullExplorers, wrapper, keeps, removed) &&
        makeRoom(m_pushExplorers, wrapper, keeps, removed))
        place(m_pushExplorers, wrapper, keeps, removed);
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
    Removed removed;
    const LockableGuard lockableGuard(*this);
    if (!TLX_ASSERT(lockableGuard.locked()) || !mayRegister(m_pullExplorers, wrapper))
        return;
    const auto keeps = [](unsigned there, unsigned coming) { return there > coming; };
    if (!makeRoom(m_pushExplorers, wrapper, keeps, removed) ||
        !makeRoom(m_pullExplorers, wrapper, keeps, removed) ||
        !place(m_pullExplorers, wrapper, keeps, removed))
        return;
    if (!fromCache && isGenericDSOnMaster())
        persistToDisk(wrapper);
}

void DiscoveryRepository::registerExplorerParser(const TlxString& type,
                                                 const ExplorerDataParser* parser)
{
    DISC_TRACE("DiscoveryRepository::registerExplorerParser");
    if (!TLX_ASSERT_AS(parser, "NULL != parser"))
        return;
    const LockableGuard lockableGuard(*this);
    if (!TLX_ASSERT(lockableGuard.locked()))
        return;
    m_explorerParsers.try_emplace(
        type, AutoDereference<ExplorerDataParser>::share(const_cast<ExplorerDataParser*>(parser)));
}

ExplorerDataParser* DiscoveryRepository::getRegisteredExplorerParser(const TlxString& type)
{
    DISC_TRACE("DiscoveryRepository::getRegisteredExplorerParser");
    const LockableGuard lockableGuard(*this);
    (void)TLX_ASSERT(lockableGuard.locked());
    loadExplorerParsers();
    const auto registered = m_explorerParsers.find(type);
    if (registered != m_explorerParsers.end())
        return AutoDereference<ExplorerDataParser>(registered->second).release();
    if (!m_defaultParser)
        m_defaultParser.reset(new DefaultExplorerDataParser);
    return AutoDereference<DefaultExplorerDataParser>(m_defaultParser).release();
}

/// Once a process. A loader of its own: that of the start-up may be at work in another thread, and
/// its functions wait for the lock that is held here.
void DiscoveryRepository::loadExplorerParsers()
{
    DISC_TRACE("DiscoveryRepository::loadExplorerParsers");
    if (m_parsersLoaded)
        return;
    m_parsersLoaded = true; // now: a parser's library may ask for a parser
    EngineContext context(true);
    getEngineSingleton<ExplorerLoader>(context)->loadExplorerParsers();
    context.close();
}

ExplorerSet DiscoveryRepository::getPushExplorers() const
{
    const LockableGuard lockableGuard(*this);
    return TLX_ASSERT(lockableGuard.locked()) ? m_pushExplorers : ExplorerSet();
}

ExplorerSet DiscoveryRepository::getPullExplorers() const
{
    const LockableGuard lockableGuard(*this);
    return TLX_ASSERT(lockableGuard.locked()) ? m_pullExplorers : ExplorerSet();
}

DiscoveryIterator* DiscoveryRepository::findPullExplorer(DiscoveryQuery query,
                                                         const ExplorerSet& pullExplorers,
                                                         const std::string& subject,
                                                         const std::string& authority)
{
    DISC_TRACE("DiscoveryRepository::findPullExplorer");
    // In the form in which the wrappers hold their names; wildcards stay.
    const AutoDereference<ExplorerIdentity> identity(new ExplorerIdentity(
        uriEncode(authority, URI_MASK_DISPLAY), uriEncode(subject, URI_MASK_DISPLAY)));
    const auto first = std::find_if(
        pullExplorers.begin(), pullExplorers.end(),
        [&](const AutoDereference<ExplorerWrapper>& wrapper) {
            return matches(identity->getAuthority(), wrapper->getAuthority()->getName()) &&
                   matches(identity->getSubject(), wrapper->getSubject()->getSubject());
        });
    if (first == pullExplorers.end())
        return nullptr;
    // The first match and all after it, matching or not: callers count on it.
    ExplorerQuerySet queries;
    for (auto each = first; each != pullExplorers.end(); ++each)
        queries.insert(AutoDereference<ExplorerQuery>(new ExplorerQuery(*each)));
    DiscoveryIterator* discIter = getDiscoveryMemDatbase()->getIterator(queries, query);
    (void)TLX_ASSERT(discIter);
    return discIter;
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
    getEngineSingleton<ExplorerLoader>(context)->loadExplorers();
    const ExplorerSet pushExplorers = getPushExplorers();
    const ExplorerSet pullExplorers = getPullExplorers();
    startExplorers(pushExplorers, context);
    startExplorers(pullExplorers, context);
    if (m_shuttingDown) { // and has stopped them, perhaps before they were started
        stopExplorers(pushExplorers);
        stopExplorers(pullExplorers);
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
    addStatus(all, "push", getPushExplorers());
    addStatus(all, "pull", getPullExplorers());
    return all;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
