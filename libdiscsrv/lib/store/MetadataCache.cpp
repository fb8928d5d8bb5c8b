#include "MetadataCache.h"

#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <mutex>
#include <random>

#include <tsl/robin_map.h>

#include "DiscDB.h"
#include "ServiceKeys.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

/// What the table keeps of a record, in little memory.
class Entry
{
  public:
    Entry(std::string_view fileName, const FileStamp& stamp, const RememberedMetadata& from)
        : m_stamp(stamp), m_discoveryTime(from.discoveryTime), m_expiresTime(from.expiresTime),
          m_priority(from.priority), m_authorityType(static_cast<std::uint8_t>(from.authorityType)),
          m_type(static_cast<std::uint8_t>(from.type)),
          m_storage(static_cast<std::uint8_t>(from.storage)), m_hasAttributes(from.hasAttributes)
    {
        const std::array<std::string_view, TEXTS> all{fileName, from.authority, from.subject,
                                                      from.signature};
        for (std::size_t i = 0; i < TEXTS; ++i)
            m_ends[i] = static_cast<std::uint32_t>(all[i].size()) + (i == 0 ? 0 : m_ends[i - 1]);
        m_texts.reset(new char[m_ends.back()]);
        char* next = m_texts.get();
        for (const std::string_view each : all)
            next = std::copy(each.begin(), each.end(), next);
    }

    bool isOf(std::string_view fileName) const { return text(FILE_NAME) == fileName; }
    const FileStamp& stamp() const { return m_stamp; }
    RememberedMetadata metadata() const
    {
        return {.discoveryTime = m_discoveryTime,
                .expiresTime = m_expiresTime,
                .priority = m_priority,
                .authorityType = static_cast<AuthorityType>(m_authorityType),
                .type = static_cast<CollectionType>(m_type),
                .storage = static_cast<CollectionStorage>(m_storage),
                .hasAttributes = m_hasAttributes,
                .authority = std::string(text(AUTHORITY)),
                .subject = std::string(text(SUBJECT)),
                .signature = std::string(text(SIGNATURE))};
    }

  private:
    enum Text : std::uint8_t
    {
        FILE_NAME,
        AUTHORITY,
        SUBJECT,
        SIGNATURE,
        TEXTS
    };

    std::string_view text(Text which) const
    {
        const std::uint32_t begin = which == FILE_NAME ? 0 : m_ends[which - 1];
        return {m_texts.get() + begin, m_ends[which] - begin};
    }

    FileStamp m_stamp;
    TlxObjTime m_discoveryTime;
    TlxObjTime m_expiresTime;
    std::uint32_t m_priority;
    std::uint8_t m_authorityType;
    std::uint8_t m_type;
    std::uint8_t m_storage;
    bool m_hasAttributes;
    std::array<std::uint32_t, TEXTS> m_ends{};
    std::unique_ptr<char[]> m_texts; ///< one after another
};

/// The longest authority and subject together. A file name has at most 255 bytes, so the store
/// writes no longer ones.
constexpr std::size_t MAX_REMEMBERED_NAME_BYTES = 1024;

/// The longest signature that is kept; records with a longer one are read from the file.
constexpr std::size_t MAX_SIGNATURE_BYTES = 256;

std::size_t hashOf(std::string_view fileName)
{
    return std::hash<std::string_view>{}(fileName);
}

} // namespace

std::optional<RememberedMetadata> RememberedMetadata::of(const Discovery& record)
{
    const Authority* const authority = record.getAuthority();
    const Subject* const subject = record.getSubject();
    const CollectionAttributes* const attributes = record.getAttributes();
    if (!authority || !subject || authority->getStatusMsg() || subject->getStatusMsg())
        return std::nullopt;
    RememberedMetadata metadata;
    metadata.authorityType = authority->getType();
    metadata.authority = authority->getName().utf8();
    metadata.subject = subject->getSubject().utf8();
    if (metadata.authority.size() + metadata.subject.size() > MAX_REMEMBERED_NAME_BYTES)
        return std::nullopt;
    metadata.hasAttributes = attributes != nullptr;
    if (!attributes)
        return metadata;
    if (attributes->getSignature().size() > MAX_SIGNATURE_BYTES)
        return std::nullopt;
    metadata.discoveryTime = attributes->getDiscoveryTime();
    metadata.expiresTime = attributes->getExpiresTime();
    metadata.priority = attributes->getPriority();
    metadata.type = attributes->getType();
    metadata.storage = attributes->getStorage();
    metadata.signature = attributes->getSignature().utf8();
    return metadata;
}

void RememberedMetadata::copyTo(Discovery& record) const
{
    record.setAuthority(new Authority(authority, authorityType));
    record.setSubject(new Subject(subject));
    if (!hasAttributes)
        return record.setAttributes(nullptr);
    auto attributes = std::make_unique<CollectionAttributes>(type, storage, discoveryTime,
                                                             TlxObjTime(), priority);
    attributes->setExpiresTime(expiresTime);
    attributes->setSignature(signature);
    record.setAttributes(attributes.release());
}

bool RememberedMetadata::isExpired() const
{
    return !expiresTime.isZero() && TlxObjTime::now() > expiresTime;
}

/// A part of the table with a mutex of its own. An entry is found by the hash of its file's name.
/// Of two names with the same hash only the later one is remembered.
class MetadataCache::Shard
{
  public:
    void setMost(std::size_t most)
    {
        const std::lock_guard guard(m_mutex);
        m_most = most;
        while (m_entries.size() > m_most)
            drop(m_entries.size() - 1);
    }
    std::size_t size() const
    {
        const std::lock_guard guard(m_mutex);
        return m_entries.size();
    }
    std::optional<RememberedMetadata> find(std::size_t hash, std::string_view fileName,
                                           const FileStamp& stamp) const
    {
        const std::lock_guard guard(m_mutex);
        const auto place = m_places.find(hash);
        if (place == m_places.end())
            return std::nullopt;
        const Entry& entry = m_entries[place->second].entry;
        if (entry.stamp() != stamp || !entry.isOf(fileName))
            return std::nullopt;
        return entry.metadata();
    }
    void remember(std::size_t hash, Entry entry)
    {
        const std::lock_guard guard(m_mutex);
        if (m_most == 0)
            return;
        if (const auto place = m_places.find(hash); place != m_places.end()) {
            m_entries[place->second].entry = std::move(entry);
            return;
        }
        if (m_entries.size() >= m_most)
            drop(m_random() % m_entries.size());
        m_entries.push_back({hash, std::move(entry)});
        m_places[hash] = static_cast<std::uint32_t>(m_entries.size() - 1);
    }
    void forget(std::size_t hash)
    {
        const std::lock_guard guard(m_mutex);
        if (const auto place = m_places.find(hash); place != m_places.end())
            drop(place->second);
    }

  private:
    struct Remembered
    {
        std::size_t hash;
        Entry entry;
    };

    /// Removes an entry. The last one takes its place.
    void drop(std::size_t place)
    {
        m_places[m_entries.back().hash] = static_cast<std::uint32_t>(place);
        m_places.erase(m_entries[place].hash);
        m_entries[place] = std::move(m_entries.back());
        m_entries.pop_back();
    }

    mutable std::mutex m_mutex; // guards all members below
    std::size_t m_most = 0;
    tsl::robin_map<std::size_t, std::uint32_t, std::identity> m_places; ///< hash to m_entries
    std::deque<Remembered> m_entries; ///< it grows without a copy of all
    std::minstd_rand m_random;
};

MetadataCache::MetadataCache(std::size_t mostRecords) : m_shards(new Shard[SHARDS])
{
    setMostRecords(mostRecords);
}

MetadataCache::~MetadataCache() = default;

MetadataCache::Shard& MetadataCache::shardOf(std::size_t hash) const
{
    // The upper bits, because the table in the shard uses the lower ones.
    return m_shards[(hash >> 48) % SHARDS];
}

void MetadataCache::setMostRecords(std::size_t mostRecords)
{
    for (std::size_t i = 0; i < SHARDS; ++i)
        m_shards[i].setMost((mostRecords + SHARDS - 1) / SHARDS);
}

std::optional<RememberedMetadata> MetadataCache::find(std::string_view fileName,
                                                      const struct stat& status) const
{
    const std::size_t hash = hashOf(fileName);
    return shardOf(hash).find(hash, fileName, FileStamp(status));
}

void MetadataCache::remember(std::string_view fileName, const struct stat& status,
                             const RememberedMetadata& metadata)
{
    const FileStamp stamp(status);
    if (!stamp.isSettledNow())
        return;
    const std::size_t hash = hashOf(fileName);
    shardOf(hash).remember(hash, Entry(fileName, stamp, metadata));
}

void MetadataCache::forget(std::string_view fileName)
{
    const std::size_t hash = hashOf(fileName);
    shardOf(hash).forget(hash);
}

std::size_t MetadataCache::size() const
{
    std::size_t size = 0;
    for (std::size_t i = 0; i < SHARDS; ++i)
        size += m_shards[i].size();
    return size;
}

MetadataCache& metadataCache()
{
    static auto* const theCache =
        new MetadataCache(static_cast<std::size_t>(ConfigKey::CACHED_RECORDS.standard()));
    return *theCache;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
