#pragma once
// Discoveries that are never stored. Pull explorers produce them when a client reads.

#include <memory>
#include <sstream>
#include <string>

#include <tlx/Lockable.h>

#include "DiscData.h"
#include "ExplorerWrapper.h"
#include "XMLHelper.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

class PulledBytes;

/// A payload in memory and the explorer that writes it. One thread at a time uses it.
class DISCSRV_EXPORT MemCollectionData : public CollectionData
{
  public:
    MemCollectionData(const AutoDereference<ExplorerQuery>& explorerQuery, DiscoveryQuery query);
    ~MemCollectionData() override;

    /// OM_READ drops the old content, asks the explorer for its collection and returns true if it
    /// delivered one. If MAX_PULLS explorers are busy, it logs that and returns false. The explorer
    /// itself calls OM_UPDATE, which does nothing and returns true.
    /// @param arg the reader's filter parameters; not null.
    bool open(OpenMode mode, const char* arg) override;
    std::size_t readCollection(std::size_t length, void* buffer) const override;
    /// Appends. Returns false if the collections in memory would have more than MAX_PULLED_BYTES,
    /// or if there is no memory. Then the whole pull fails, even if the explorer ignores it.
    bool writeCollection(std::size_t length, const void* buffer) const override;

    /// How many bytes of the collection are in memory.
    std::size_t heldBytes() const;

    /// The number of explorers that may be asked at once. It is far below the limit of requests in
    /// progress, so hanging explorers leave room for requests without explorers.
    static constexpr unsigned MAX_PULLS = 32;

  private:
    bool pull(ExplorerPull& explorer, const char* text);
    void drop() const;
    bool spoil(const std::string& why) const;

    mutable astringstream m_stream;
    mutable std::unique_ptr<PulledBytes> m_bytes; ///< of m_stream
    mutable bool m_spoilt = false; ///< a write failed; writing is const in every backend
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

/// Returns one record for each explorer, in the order of the set. It ignores the inherited filters.
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

/// Makes records and iterators of this backend. A process has one; any thread may use it.
class DISCSRV_EXPORT DiscoveryMemCreator : protected virtual TlxLockable
{
  public:
    DiscoveryMemCreator() = default;
    DiscoveryMemCreator(const DiscoveryMemCreator&) = delete;
    DiscoveryMemCreator& operator=(const DiscoveryMemCreator&) = delete;
    ~DiscoveryMemCreator() override;
    /// Makes a record. The caller releases it.
    Discovery* newDiscovery(const AutoDereference<ExplorerQuery>& query, DiscoveryQuery dq);
    /// Makes an iterator over a copy of the set. The caller releases it.
    DiscoveryIterator* getIterator(const ExplorerQuerySet& queries, DiscoveryQuery dq);
};

/// The creator of this process.
// Compat(name-mem-datbase): programs call it under this name.
DISCSRV_EXPORT DiscoveryMemCreator* getDiscoveryMemDatbase();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
