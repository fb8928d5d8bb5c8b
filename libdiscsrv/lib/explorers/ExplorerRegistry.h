#pragma once
// The registered explorers, and the rules when two registrations compete.

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
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
/// A reader takes a snapshot: it copies no set and waits for no registration. A registration
/// changes the tables under their lock and publishes the next snapshot. Then it stores the
/// registration without that lock.
class DISCSRV_EXPORT ExplorerRegistry
{
  public:
    /// @param most the most explorers of each kind.
    explicit ExplorerRegistry(std::size_t most);
    ~ExplorerRegistry();
    ExplorerRegistry(const ExplorerRegistry&) = delete;
    ExplorerRegistry& operator=(const ExplorerRegistry&) = delete;

    ExplorerSnapshot snapshot() const;

    // A registration beyond the bound, and one that comes after close(), is logged and dropped. One
    // that loses against a higher priority is dropped and not logged.

    void registerPush(const AutoDereference<ExplorerWrapper>& wrapper);
    /// @param store writes the registration to disk, and registers nothing itself. The registry
    /// calls it without the tables' lock, for one registration at a time. It does not call it for a
    /// dropped or replaced registration. So the last one that is stored is the one that is
    /// registered. A registration that was accepted before close() is stored after close(), too.
    void registerPull(const AutoDereference<ExplorerWrapper>& wrapper,
                      const std::function<void()>& store = {});

    /// Makes the registry drop all later registrations.
    void close();
    /// Removes and returns all registrations.
    ExplorerSnapshot takeAll();

    /// Publishes all changes of a scope at its end. Otherwise a load of thousands of explorers
    /// would copy the sets thousands of times. Until then readers see the earlier snapshot.
    class DISCSRV_EXPORT Batch
    {
      public:
        explicit Batch(ExplorerRegistry& registry);
        ~Batch();
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;

      private:
        ExplorerRegistry& m_registry;
    };

  private:
    using Removed = std::vector<AutoDereference<ExplorerWrapper>>;
    using Published = ExplorerSnapshot; ///< one that was replaced; to be dropped without a lock
    enum class Refusal
    {
        NONE,
        CLOSED,
        FULL
    };

    Refusal refusal(const ExplorerSet& set, const AutoDereference<ExplorerWrapper>& wrapper) const;
    void logRefusal(Refusal refusal) const;
    void forget(const Removed& removed);
    Published publish();

    const std::size_t m_most;

    TlxLockable m_tables; // held for one change, never during a call to other code
    ExplorerSet m_push;
    ExplorerSet m_pull;
    std::set<const ExplorerWrapper*> m_unstored; ///< accepted, and still to be stored
    bool m_pushChanged = false;                  ///< since the last snapshot
    bool m_pullChanged = false;
    bool m_closed = false;
    unsigned m_batches = 0;

    mutable std::mutex m_publishedMutex; // a leaf, for the two pointers
    ExplorerSnapshot m_published;

    std::mutex m_storing; // held while one registration is stored; only registrations take it
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
