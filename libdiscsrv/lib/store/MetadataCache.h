#pragma once
// Remembers the metadata of stored records, so that a listing needs no file.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <sys/stat.h>

#include "DiscData.h"
#include "FileStamp.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The content of a metadata document without status messages.
struct RememberedMetadata
{
    /// Nothing if the record lacks a part or has a part that this class does not hold.
    static std::optional<RememberedMetadata> of(const Discovery& record);
    /// Sets the parts of a record.
    void copyTo(Discovery& record) const;
    bool isExpired() const;

    TlxObjTime discoveryTime;
    TlxObjTime expiresTime;
    std::uint32_t priority = 0;
    AuthorityType authorityType{};
    CollectionType type{};
    CollectionStorage storage{};
    bool hasAttributes = false;
    std::string authority; ///< in display form, like the subject
    std::string subject;
    std::string signature;
};

/// A bounded table of what was read from metadata files. Its key is the file's name. An entry is
/// valid only while the file has the same stamp; so other processes may change the files at any
/// time. When the table is full, a new entry replaces a random one. Any thread.
class MetadataCache
{
  public:
    explicit MetadataCache(std::size_t mostRecords);
    ~MetadataCache();

    /// Changes the bound. 0 turns the cache off.
    void setMostRecords(std::size_t mostRecords);

    /// Returns what is known about a file, if it was remembered with the same stamp. The caller
    /// takes the status after it has locked the file; without a lock, just before the call.
    std::optional<RememberedMetadata> find(std::string_view fileName,
                                           const struct stat& status) const;
    /// Remembers what was read from the file while it was locked and had this status. Does nothing
    /// if the stamp has not settled.
    void remember(std::string_view fileName, const struct stat& status,
                  const RememberedMetadata& metadata);
    void forget(std::string_view fileName);
    std::size_t size() const;

  private:
    class Shard;
    Shard& shardOf(std::size_t hash) const;

    static constexpr std::size_t SHARDS = 16;
    const std::unique_ptr<Shard[]> m_shards;
};

/// The cache of this process's store.
MetadataCache& metadataCache();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
