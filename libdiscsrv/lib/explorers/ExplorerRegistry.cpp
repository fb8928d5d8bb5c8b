#include "ExplorerRegistry.h"

#include <utility>

#include "DiscLog.h"

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

} // namespace

ExplorerRegistry::ExplorerRegistry(std::size_t most)
    : m_most(most), m_push{keepsAgainstPush}, m_pull{keepsAgainstPull}
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

void ExplorerRegistry::remove(Kind& kind, ExplorerSet::const_iterator entry, Dropped& dropped)
{
    changed(kind, dropped);
    dropped.entries.push_back(*entry);
    kind.registered.erase(entry);
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
    // The comparator is not a strict weak ordering, so one host may get several entries.
    if (kind.registered.size() >= m_most && kind.registered.find(wrapper) == kind.registered.end())
        return Refusal::FULL;
    return Refusal::NONE;
}

void ExplorerRegistry::logRefusal(Refusal refusal) const
{
    const LogScope scope(OPERATION);
    if (refusal == Refusal::CLOSED)
        DISC_NOTICE("An explorer that registers during the shutdown is dropped");
    else if (refusal == Refusal::FULL)
        DISC_LOG(1, "There are " << m_most << " explorers already, another one is dropped");
}

/// Returns true if the set now has the new entry.
bool ExplorerRegistry::add(const AutoDereference<ExplorerWrapper>& wrapper, Kind& own, Kind& other,
                           bool toStore)
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
        for (const AutoDereference<ExplorerWrapper>& replaced : dropped.entries)
            m_unstored.erase(replaced.get());
        if (placed && toStore)
            m_unstored.insert(wrapper.get());
    }
    logRefusal(refused);
    return placed;
}

void ExplorerRegistry::registerPush(const AutoDereference<ExplorerWrapper>& wrapper)
{
    add(wrapper, m_push, m_pull, false);
}

void ExplorerRegistry::registerPull(const AutoDereference<ExplorerWrapper>& wrapper,
                                    const std::function<void()>& store)
{
    const bool toStore = static_cast<bool>(store);
    if (!add(wrapper, m_pull, m_push, toStore) || !toStore)
        return;
    const std::lock_guard storing(m_storing);
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
    changed(m_push, dropped);
    changed(m_pull, dropped);
    return {push, pull};
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
