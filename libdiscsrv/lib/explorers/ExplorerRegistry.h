#pragma once
// The registered explorers, and the rules when two registrations compete.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <tlx/Lockable.h>

#include "DiscExport.h"
#include "ExplorerWrapper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The explorers of one moment. No pointer is null, and no set ever changes.
struct ExplorerSnapshot
{
    std::shared_ptr<const ExplorerSet> push;
    std::shared_ptr<const ExplorerSet> pull;
};

/// Owns both sets. Of two registrations for the same authority and subject the one of higher
/// priority wins. A pull registration also replaces one of its own priority, a push registration
/// does not. Any thread.
///
/// A reader takes a snapshot. Only the first reader after a change copies the changed set. All
/// readers share that copy until the next change, so a registration copies nothing.
///
/// One peer has at most a share of the places for pull explorers. Beyond it, its own oldest
/// registration goes. Peers that come when all places are taken get those of unknown owners: the
/// registrations that the store had at the start, the oldest first. Nobody else's place goes.
///
/// The tables' lock is held for one change in memory, or for one copy. A registration is stored
/// without that lock, so no reader waits for the disk.
class DISCSRV_EXPORT ExplorerRegistry
{
  public:
    /// @param most the most explorers of each kind.
    /// @param mostOfPeer the most pull explorers of one peer.
    explicit ExplorerRegistry(std::size_t most, std::size_t mostOfPeer);
    ~ExplorerRegistry();
    ExplorerRegistry(const ExplorerRegistry&) = delete;
    ExplorerRegistry& operator=(const ExplorerRegistry&) = delete;

    /// Contains every registration whose call has returned, and those that are still being stored.
    ExplorerSnapshot snapshot() const;

    /// Removes the stored form of a registration that was given up.
    using Forget = std::function<void(const ExplorerWrapper& wrapper)>;

    // A registration that is beyond the bound, or comes after close(), is logged and dropped. A
    // registration that loses against a higher priority is dropped and not logged.

    void registerPush(const AutoDereference<ExplorerWrapper>& wrapper);
    /// @param store writes the registration to disk, and registers nothing itself. The registry
    /// calls it without the tables' lock, for one registration at a time. It does not call it for a
    /// dropped or replaced registration. So the registration that is stored last is the registered
    /// one. A registration that was accepted before close() is stored after close(), too.
    /// @param forget is called in the same way, before store, for each registration that goes.
    void registerPull(const AutoDereference<ExplorerWrapper>& wrapper,
                      const std::function<void()>& store = {}, const Forget& forget = {});

    /// Makes the registry drop all later registrations.
    void close();
    /// Removes and returns all registrations.
    ExplorerSnapshot takeAll();

  private:
    /// Whether the existing entry stays and a new one is dropped. Compares their priorities.
    using Keeps = bool (*)(unsigned there, unsigned coming);

    using Place = ExplorerSet::const_iterator;
    /// The places of one registrant, by their age.
    using Places = std::map<std::uint64_t, Place>;

    /// The explorers of one kind.
    struct Kind
    {
        Keeps keeps; ///< when a new entry of this kind meets an existing one of either kind
        ExplorerSet registered{};
        /// Shared by the readers. Null from a change until the next reader asks.
        mutable std::shared_ptr<const ExplorerSet> published{};
        /// The registrations of peers, by RequestPeer::key. Those of unknown owners have the empty
        /// key. This process's own are in no list.
        std::map<std::string, Places> owned{};
        std::unordered_map<const ExplorerWrapper*, std::uint64_t> ages{};
        std::uint64_t lastAge = 0;
    };

    /// Is destroyed after the lock is released, because the last reference runs an explorer's own
    /// code.
    struct Dropped
    {
        std::vector<AutoDereference<ExplorerWrapper>> entries;
        std::vector<std::shared_ptr<const ExplorerSet>> snapshots;
        /// Those of the entries that went to make room. The others were replaced.
        std::vector<AutoDereference<ExplorerWrapper>> givenUp;
    };

    enum class Refusal
    {
        NONE,
        CLOSED,
        FULL
    };

    bool add(const AutoDereference<ExplorerWrapper>& wrapper, Kind& own, Kind& other, bool toStore,
             std::vector<AutoDereference<ExplorerWrapper>>& givenUp);
    Refusal refusal(const Kind& kind, const AutoDereference<ExplorerWrapper>& wrapper) const;
    void logRefusal(Refusal refusal) const;
    void logGivenUp(const ExplorerWrapper& coming, const ExplorerWrapper& givenUp) const;
    bool isFull(const Kind& kind, const AutoDereference<ExplorerWrapper>& wrapper) const;
    bool isAtShare(const Kind& kind, const ExplorerWrapper& wrapper) const;
    void keepToShare(Kind& kind, const AutoDereference<ExplorerWrapper>& wrapper,
                     Dropped& dropped) const;
    bool isRegistered(const ExplorerWrapper& wrapper) const;

    static const std::shared_ptr<const ExplorerSet>& publish(const Kind& kind);
    static void changed(Kind& kind, Dropped& dropped);
    static void note(Kind& kind, Place entry);
    static void remove(Kind& kind, Place entry, Dropped& dropped);
    static void giveUpOldest(Kind& kind, const std::string& owner, Dropped& dropped);
    static bool makeRoom(Kind& kind, const AutoDereference<ExplorerWrapper>& wrapper, Keeps keeps,
                         Dropped& dropped);
    static bool place(Kind& kind, const AutoDereference<ExplorerWrapper>& wrapper,
                      Dropped& dropped);

    const std::size_t m_most;
    const std::size_t m_mostOfPeer;

    TlxLockable m_tables; // held for one change or one copy, never during a call to other code
    Kind m_push;
    Kind m_pull;
    std::set<const ExplorerWrapper*> m_unstored; ///< accepted, and still to be stored
    bool m_closed = false;

    std::mutex m_storing; // held while one registration is stored; only registrations take it
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
