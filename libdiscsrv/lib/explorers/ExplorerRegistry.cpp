#include "ExplorerRegistry.h"

#include <utility>

#include "DiscLog.h"
#include "ServiceCounters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscoveryRepository";
/// The repository's operation. Log readers find these lines under its name.
constexpr const char* OPERATION = "DiscoveryRepository::registerExplorer";

// Compat(register-tie): plug-ins rely on this: a pull explorer replaces one of the same priority, a
// push explorer does not.
bool keepsAgainstPush(unsigned there, unsigned coming)
{
    return there >= coming;
}

bool keepsAgainstPull(unsigned there, unsigned coming)
{
    return there > coming;
}

/// The key of the registrations whose owners are not known.
const std::string NOBODY;

} // namespace

ExplorerRegistry::ExplorerRegistry(std::size_t most, std::size_t mostOfPeer)
    : m_most(most), m_mostOfPeer(mostOfPeer), m_push{keepsAgainstPush}, m_pull{keepsAgainstPull}
{
}

ExplorerRegistry::~ExplorerRegistry() = default;

ExplorerSnapshot ExplorerRegistry::snapshot() const
{
    const LockableGuard lockableGuard(m_tables);
    if (!TLX_ASSERT(lockableGuard.locked()))
        return {std::make_shared<const ExplorerSet>(), std::make_shared<const ExplorerSet>()};
    return {publish(m_push), publish(m_pull)};
}

const std::shared_ptr<const ExplorerSet>& ExplorerRegistry::publish(const Kind& kind)
{
    if (!kind.published)
        kind.published = std::make_shared<const ExplorerSet>(kind.registered);
    return kind.published;
}

void ExplorerRegistry::changed(Kind& kind, Dropped& dropped)
{
    if (kind.published)
        dropped.snapshots.push_back(std::exchange(kind.published, nullptr));
}

/// Notes the owner and the age of a new entry.
void ExplorerRegistry::note(Kind& kind, Place entry)
{
    if ((*entry)->getRegistrant() == Registrant::PROCESS)
        return;
    kind.ages.emplace(entry->get(), ++kind.lastAge);
    kind.owned[(*entry)->getPeer()].emplace(kind.lastAge, entry);
}

void ExplorerRegistry::remove(Kind& kind, Place entry, Dropped& dropped)
{
    changed(kind, dropped);
    if (const auto age = kind.ages.find(entry->get()); age != kind.ages.end()) {
        const auto places = kind.owned.find((*entry)->getPeer());
        places->second.erase(age->second);
        if (places->second.empty())
            kind.owned.erase(places);
        kind.ages.erase(age);
    }
    dropped.entries.push_back(*entry);
    kind.registered.erase(entry);
}

/// The owner has at least one.
void ExplorerRegistry::giveUpOldest(Kind& kind, const std::string& owner, Dropped& dropped)
{
    const Place oldest = kind.owned.at(owner).begin()->second;
    dropped.givenUp.push_back(*oldest);
    remove(kind, oldest, dropped);
}

bool ExplorerRegistry::isAtShare(const Kind& kind, const ExplorerWrapper& wrapper) const
{
    const auto places = kind.owned.find(wrapper.getPeer());
    return places != kind.owned.end() && places->second.size() >= m_mostOfPeer;
}

/// The comparator is not a strict weak ordering, so one host may get several entries.
bool ExplorerRegistry::isFull(const Kind& kind,
                              const AutoDereference<ExplorerWrapper>& wrapper) const
{
    return kind.registered.size() >= m_most &&
           kind.registered.find(wrapper) == kind.registered.end();
}

/// After a peer's new entry: if the peer has more than its share, its oldest entry goes. If all
/// together are too many, one of nobody goes.
void ExplorerRegistry::keepToShare(Kind& kind, const AutoDereference<ExplorerWrapper>& wrapper,
                                   Dropped& dropped) const
{
    if (wrapper->getRegistrant() != Registrant::PEER)
        return;
    if (kind.owned.at(wrapper->getPeer()).size() > m_mostOfPeer)
        giveUpOldest(kind, wrapper->getPeer(), dropped);
    else if (kind.registered.size() > m_most)
        giveUpOldest(kind, NOBODY, dropped);
}

/// Whether the tables have a registration of the same name.
bool ExplorerRegistry::isRegistered(const ExplorerWrapper& wrapper) const
{
    const auto same = m_pull.registered.find(
        AutoDereference<ExplorerWrapper>::share(const_cast<ExplorerWrapper*>(&wrapper)));
    return same != m_pull.registered.end() && *(*same)->getSubject() == *wrapper.getSubject() &&
           *(*same)->getAuthority() == *wrapper.getAuthority();
}

/// Removes the existing entry that is equal to a new one. If the existing entry must stay, it
/// changes nothing and returns false.
bool ExplorerRegistry::makeRoom(Kind& kind, const AutoDereference<ExplorerWrapper>& wrapper,
                                Keeps keeps, Dropped& dropped)
{
    const auto entry = kind.registered.find(wrapper);
    if (entry == kind.registered.end())
        return true;
    if (keeps((*entry)->getPriority(), wrapper->getPriority()))
        return false;
    remove(kind, entry, dropped);
    return true;
}

/// Inserts an entry, unless an equal entry must stay. The comparator is not a strict weak ordering:
/// `insert` may hit an equal element that `find` missed.
bool ExplorerRegistry::place(Kind& kind, const AutoDereference<ExplorerWrapper>& wrapper,
                             Dropped& dropped)
{
    for (;;) {
        const auto [entry, inserted] = kind.registered.insert(wrapper);
        if (inserted) {
            changed(kind, dropped);
            note(kind, entry);
            return true;
        }
        if (kind.keeps((*entry)->getPriority(), wrapper->getPriority()))
            return false;
        remove(kind, entry, dropped);
    }
}

ExplorerRegistry::Refusal
ExplorerRegistry::refusal(const Kind& kind, const AutoDereference<ExplorerWrapper>& wrapper) const
{
    if (m_closed)
        return Refusal::CLOSED;
    if (!isFull(kind, wrapper))
        return Refusal::NONE;
    const bool makesRoom =
        wrapper->getRegistrant() == Registrant::PEER &&
        (isAtShare(kind, *wrapper) || kind.owned.find(NOBODY) != kind.owned.end());
    return makesRoom ? Refusal::NONE : Refusal::FULL;
}

void ExplorerRegistry::logRefusal(Refusal refusal) const
{
    const LogScope scope(OPERATION);
    if (refusal == Refusal::CLOSED)
        DISC_NOTICE("An explorer that registers during the shutdown is dropped");
    else if (refusal == Refusal::FULL)
        DISC_LOG(1, "There are " << m_most << " explorers already, another one is dropped");
}

void ExplorerRegistry::logGivenUp(const ExplorerWrapper& coming,
                                  const ExplorerWrapper& givenUp) const
{
    const LogScope scope(OPERATION);
    countService(ServiceCounter::EXPLORERS_GIVEN_UP);
    const auto name = [&givenUp] {
        return "the explorer of subject " + givenUp.getSubject()->getSubject().utf8() +
               " & authority " + givenUp.getAuthority()->getName().utf8();
    };
    if (givenUp.getRegistrant() == Registrant::PEER)
        DISC_WARN("Gave up " << name() << ": the peer with the " << coming.getPeer()
                             << " has registered more than " << m_mostOfPeer);
    else
        DISC_WARN("Gave up " << name()
                             << ", which nobody has registered since the start: there are "
                             << m_most << " explorers, and the peer with the " << coming.getPeer()
                             << " registers another one");
}

/// Returns true if the set now has the new entry.
bool ExplorerRegistry::add(const AutoDereference<ExplorerWrapper>& wrapper, Kind& own, Kind& other,
                           bool toStore, std::vector<AutoDereference<ExplorerWrapper>>& givenUp)
{
    Dropped dropped;
    Refusal refused = Refusal::NONE;
    bool placed = false;
    {
        const LockableGuard lockableGuard(m_tables);
        if (!TLX_ASSERT(lockableGuard.locked()))
            return false;
        refused = refusal(own, wrapper);
        placed = refused == Refusal::NONE && makeRoom(other, wrapper, own.keeps, dropped) &&
                 makeRoom(own, wrapper, own.keeps, dropped) && place(own, wrapper, dropped);
        if (placed)
            keepToShare(own, wrapper, dropped);
        for (const AutoDereference<ExplorerWrapper>& replaced : dropped.entries)
            m_unstored.erase(replaced.get());
        if (placed && toStore)
            m_unstored.insert(wrapper.get());
    }
    logRefusal(refused);
    for (const AutoDereference<ExplorerWrapper>& each : dropped.givenUp)
        logGivenUp(*wrapper, *each);
    givenUp = std::move(dropped.givenUp);
    return placed;
}

void ExplorerRegistry::registerPush(const AutoDereference<ExplorerWrapper>& wrapper)
{
    std::vector<AutoDereference<ExplorerWrapper>> givenUp;
    add(wrapper, m_push, m_pull, false, givenUp);
}

void ExplorerRegistry::registerPull(const AutoDereference<ExplorerWrapper>& wrapper,
                                    const std::function<void()>& store, const Forget& forget)
{
    const bool toStore = static_cast<bool>(store);
    std::vector<AutoDereference<ExplorerWrapper>> givenUp;
    if (!add(wrapper, m_pull, m_push, toStore, givenUp) || !toStore)
        return;
    const std::lock_guard storing(m_storing);
    for (const AutoDereference<ExplorerWrapper>& each : givenUp) {
        bool isBack = false;
        {
            const LockableGuard lockableGuard(m_tables);
            isBack = !TLX_ASSERT(lockableGuard.locked()) || isRegistered(*each);
        }
        if (!isBack && forget)
            forget(*each);
    }
    {
        const LockableGuard lockableGuard(m_tables);
        if (!TLX_ASSERT(lockableGuard.locked()) || m_unstored.erase(wrapper.get()) == 0)
            return; // another registration has replaced this one and is stored instead
    }
    store();
}

void ExplorerRegistry::close()
{
    const LockableGuard lockableGuard(m_tables);
    (void)TLX_ASSERT(lockableGuard.locked());
    m_closed = true;
}

ExplorerSnapshot ExplorerRegistry::takeAll()
{
    auto push = std::make_shared<ExplorerSet>();
    auto pull = std::make_shared<ExplorerSet>();
    Dropped dropped;
    const LockableGuard lockableGuard(m_tables);
    (void)TLX_ASSERT(lockableGuard.locked());
    push->swap(m_push.registered);
    pull->swap(m_pull.registered);
    for (Kind* kind : {&m_push, &m_pull}) {
        kind->owned.clear();
        kind->ages.clear();
    }
    changed(m_push, dropped);
    changed(m_pull, dropped);
    return {push, pull};
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
