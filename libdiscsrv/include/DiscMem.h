#pragma once
// Discoveries that are never stored: pull explorers produce them when somebody reads.

#include <sstream>

#include <tlx/Lockable.h>

#include "DiscData.h"
#include "ExplorerWrapper.h"
#include "XMLHelper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// A payload in memory, and the explorer that writes it. Used by one thread at a time.
class DISCSRV_EXPORT MemCollectionData : public CollectionData
{
  public:
    MemCollectionData(const AutoDereference<ExplorerQuery>& explorerQuery, DiscoveryQuery query);
    ~MemCollectionData() override;

    /// OM_READ starts afresh: asks the explorer for its collection and answers whether it
    /// delivered. No more than MAX_PULLS explorers are asked at a time; beyond that it is logged
    /// and false. OM_UPDATE, which the explorer itself calls, does nothing and answers true.
    /// @param arg what the reader wants applied to the source of the collection; not null.
    bool open(OpenMode mode, const char* arg) override;
    std::size_t readCollection(std::size_t length, void* buffer) const override;
    /// Appends; always true.
    bool writeCollection(std::size_t length, const void* buffer) const override;

    /// Well below the number of requests that may be in progress, so that hanging explorers leave
    /// room for those that need none.
    static constexpr unsigned MAX_PULLS = 32;

  private:
    bool pull(ExplorerPull& explorer, const char* text);

    mutable astringstream m_stream;
    const DiscoveryQuery m_query;
    const AutoDereference<ExplorerQuery> m_explorerQuery;
};

/// A record of what a pull explorer can produce.
class DISCSRV_EXPORT MemDiscovery : public Discovery
{
  public:
    MemDiscovery(MemCollectionData* data, DiscoveryQuery query) : Discovery(data, query) {}
    /// Does nothing and succeeds.
    DiscoveryResult persist() override;
    DiscoveryResult open(OpenMode mode, const char* arg) override;

  protected:
    ~MemDiscovery() override = default;
};

/// One record for each explorer, in the order of the set.
class DISCSRV_EXPORT MemDiscoveryIterator : public virtual DiscoveryIterator
{
  public:
    MemDiscoveryIterator(const ExplorerQuerySet& queries, DiscoveryQuery query);
    Discovery* getNext() override;

  protected:
    ~MemDiscoveryIterator() override = default;

  private:
    bool m_started = false;
    const DiscoveryQuery m_query;
    const ExplorerQuerySet m_queries;
    ExplorerQuerySet::const_iterator m_position;
};

/// Makes them. One a process, any thread.
class DISCSRV_EXPORT DiscoveryMemCreator : protected virtual TlxLockable
{
  public:
    ~DiscoveryMemCreator() override;
    /// A new record for the caller to release.
    Discovery* newDiscovery(const AutoDereference<ExplorerQuery>& query, DiscoveryQuery dq);
    /// A new iterator over a copy of the set, for the caller to release.
    DiscoveryIterator* getIterator(const ExplorerQuerySet& queries, DiscoveryQuery dq);
};

/// The name is spelt as callers know it.
DISCSRV_EXPORT DiscoveryMemCreator* getDiscoveryMemDatbase();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
