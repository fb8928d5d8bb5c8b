#include "ExplorerRegistry.h"

#include <utility>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscoveryRepository";
/// The repository's operation. Log readers find these lines under its name.
constexpr const char* OPERATION = "DiscoveryRepository::registerExplorer";

using Removed = std::vector<AutoDereference<ExplorerWrapper>>;

/// Whether the existing entry stays and a new one is dropped.
// Compat(register-tie): plug-ins rely on the difference between the two kinds.
using Keeps = bool (*)(unsigned there, unsigned coming);

bool keepsAgainstPush(unsigned there, unsigned coming)
{
    return there >= coming;
}

bool keepsAgainstPull(unsigned there, unsigned coming)
{
    return there > coming;
}

/// Removes the existing entry that is equal to a new one. If the existing entry must stay, it
/// changes nothing and returns false.
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

/// Inserts an entry, unless an equal entry must stay. The comparator is not a strict weak ordering:
/// `insert` may hit an equal element that `find` missed.
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

ExplorerRegistry::ExplorerRegistry(std::size_t most)
    : m_most(most), m_published{std::make_shared<const ExplorerSet>(),
                                std::make_shared<const ExplorerSet>()}
{
}

ExplorerRegistry::~ExplorerRegistry() = default;

ExplorerSnapshot ExplorerRegistry::snapshot() const
{
    const std::lock_guard guard(m_publishedMutex);
    return m_published;
}

ExplorerRegistry::Refusal
ExplorerRegistry::refusal(const ExplorerSet& set,
                          const AutoDereference<ExplorerWrapper>& wrapper) const
{
    if (m_closed)
        return Refusal::CLOSED;
    // The comparator is not a strict weak ordering, so one host may get several entries.
    if (set.size() >= m_most && set.find(wrapper) == set.end())
        return Refusal::FULL;
    return Refusal::NONE;
}

void ExplorerRegistry::logRefusal(Refusal refusal) const
{
    const LogScope scope(OPERATION);
    if (refusal == Refusal::CLOSED)
        DISC_LOG(1, "An explorer that registers during the shutdown is dropped");
    else if (refusal == Refusal::FULL)
        DISC_LOG(1, "There are " << m_most << " explorers already, another one is dropped");
}

void ExplorerRegistry::registerPush(const AutoDereference<ExplorerWrapper>& wrapper)
{
    // They are destroyed after the lock is released, because the last reference runs an explorer's
    // own code.
    Published before;
    Removed removed;
    Refusal refused = Refusal::NONE;
    {
        const LockableGuard lockableGuard(m_tables);
        if (!TLX_ASSERT(lockableGuard.locked()))
            return;
        refused = refusal(m_push, wrapper);
        if (refused == Refusal::NONE) {
            if (makeRoom(m_pull, wrapper, keepsAgainstPush, removed)) {
                m_pullChanged |= !removed.empty();
                m_pushChanged = true;
                if (makeRoom(m_push, wrapper, keepsAgainstPush, removed))
                    place(m_push, wrapper, keepsAgainstPush, removed);
            }
            forget(removed);
            before = publish();
        }
    }
    logRefusal(refused);
}

void ExplorerRegistry::registerPull(const AutoDereference<ExplorerWrapper>& wrapper,
                                    const std::function<void()>& store)
{
    bool placed = false;
    {
        Published before;
        Removed removed;
        Refusal refused = Refusal::NONE;
        {
            const LockableGuard lockableGuard(m_tables);
            if (!TLX_ASSERT(lockableGuard.locked()))
                return;
            refused = refusal(m_pull, wrapper);
            if (refused == Refusal::NONE) {
                if (makeRoom(m_push, wrapper, keepsAgainstPull, removed)) {
                    m_pushChanged |= !removed.empty();
                    m_pullChanged = true;
                    placed = makeRoom(m_pull, wrapper, keepsAgainstPull, removed) &&
                             place(m_pull, wrapper, keepsAgainstPull, removed);
                }
                forget(removed);
                if (placed && store)
                    m_unstored.insert(wrapper.get());
                before = publish();
            }
        }
        logRefusal(refused);
    }
    if (!placed || !store)
        return;
    const std::lock_guard storing(m_storing);
    {
        const LockableGuard lockableGuard(m_tables);
        if (!TLX_ASSERT(lockableGuard.locked()) || m_unstored.erase(wrapper.get()) == 0)
            return; // another registration has replaced this one and is stored instead
    }
    store();
}

void ExplorerRegistry::forget(const Removed& removed)
{
    for (const AutoDereference<ExplorerWrapper>& wrapper : removed)
        m_unstored.erase(wrapper.get());
}

ExplorerRegistry::Published ExplorerRegistry::publish()
{
    if (m_batches > 0)
        return {};
    ExplorerSnapshot next = snapshot();
    if (std::exchange(m_pushChanged, false))
        next.push = std::make_shared<const ExplorerSet>(m_push);
    if (std::exchange(m_pullChanged, false))
        next.pull = std::make_shared<const ExplorerSet>(m_pull);
    const std::lock_guard guard(m_publishedMutex);
    std::swap(m_published, next);
    return next;
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
    Published before;
    const LockableGuard lockableGuard(m_tables);
    (void)TLX_ASSERT(lockableGuard.locked());
    push->swap(m_push);
    pull->swap(m_pull);
    m_pushChanged = m_pullChanged = true;
    before = publish();
    return {push, pull};
}

ExplorerRegistry::Batch::Batch(ExplorerRegistry& registry) : m_registry(registry)
{
    const LockableGuard lockableGuard(m_registry.m_tables);
    (void)TLX_ASSERT(lockableGuard.locked());
    ++m_registry.m_batches;
}

ExplorerRegistry::Batch::~Batch()
{
    Published before;
    const LockableGuard lockableGuard(m_registry.m_tables);
    (void)TLX_ASSERT(lockableGuard.locked());
    if (--m_registry.m_batches == 0)
        before = m_registry.publish();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
