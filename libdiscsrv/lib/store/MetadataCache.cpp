#include "MetadataCache.h"

#include <algorithm>
#include <array>
#include <functional>
#include <mutex>
#include <random>
#include <unordered_map>

#include "DiscDB.h"
#include "ServiceKeys.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

/// Finds a text in a table of strings without making a string.
struct TextHash
{
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const
    {
        return std::hash<std::string_view>{}(text);
    }
};

/// The texts of a record in one block of memory.
class PackedTexts
{
  public:
    PackedTexts(const std::string& authority, const std::string& subject,
                const std::string& signature)
        : m_authorityEnd(static_cast<std::uint32_t>(authority.size())),
          m_subjectEnd(static_cast<std::uint32_t>(authority.size() + subject.size())),
          m_end(static_cast<std::uint32_t>(authority.size() + subject.size() + signature.size())),
          m_bytes(new char[m_end])
    {
        authority.copy(m_bytes.get(), authority.size());
        subject.copy(m_bytes.get() + m_authorityEnd, subject.size());
        signature.copy(m_bytes.get() + m_subjectEnd, signature.size());
    }
    std::string authority() const { return {m_bytes.get(), m_authorityEnd}; }
    std::string subject() const
    {
        return {m_bytes.get() + m_authorityEnd, m_subjectEnd - m_authorityEnd};
    }
    std::string signature() const { return {m_bytes.get() + m_subjectEnd, m_end - m_subjectEnd}; }

  private:
    std::uint32_t m_authorityEnd;
    std::uint32_t m_subjectEnd;
    std::uint32_t m_end;
    std::unique_ptr<char[]> m_bytes;
};

/// What the table keeps of a record, in little memory.
struct Entry
{
    Entry(const FileStamp& itsStamp, const RememberedMetadata& from)
        : stamp(itsStamp), discoveryTime(from.discoveryTime), expiresTime(from.expiresTime),
          priority(from.priority), authorityType(static_cast<std::uint8_t>(from.authorityType)),
          type(static_cast<std::uint8_t>(from.type)),
          storage(static_cast<std::uint8_t>(from.storage)), hasAttributes(from.hasAttributes),
          texts(from.authority, from.subject, from.signature)
    {
    }
    RememberedMetadata metadata() const
    {
        return {.discoveryTime = discoveryTime,
                .expiresTime = expiresTime,
                .priority = priority,
                .authorityType = static_cast<AuthorityType>(authorityType),
                .type = static_cast<CollectionType>(type),
                .storage = static_cast<CollectionStorage>(storage),
                .hasAttributes = hasAttributes,
                .authority = texts.authority(),
                .subject = texts.subject(),
                .signature = texts.signature()};
    }

    FileStamp stamp;
    TlxObjTime discoveryTime;
    TlxObjTime expiresTime;
    std::uint32_t priority;
    std::uint8_t authorityType;
    std::uint8_t type;
    std::uint8_t storage;
    bool hasAttributes;
    PackedTexts texts;
};

/// The longest signature that is kept; records with a longer one are read from the file.
constexpr std::size_t MAX_SIGNATURE_BYTES = 256;

} // namespace

FileStamp::FileStamp(const struct stat& status)
    : device(status.st_dev), inode(status.st_ino), size(status.st_size),
      modifiedSeconds(status.st_mtim.tv_sec), changedSeconds(status.st_ctim.tv_sec),
      modifiedNanoseconds(static_cast<std::int32_t>(status.st_mtim.tv_nsec)),
      changedNanoseconds(static_cast<std::int32_t>(status.st_ctim.tv_nsec))
{
}

bool FileStamp::isSettled(const struct timespec& now) const
{
    // The kernel's clock for files moves every 1 to 10 ms. Some file systems keep whole seconds or
    // even seconds only; their times have no nanoseconds.
    constexpr std::int64_t FINE_GRAIN = 50'000'000;
    constexpr std::int64_t COARSE_GRAIN = 3'000'000'000;
    constexpr std::int64_t SECOND = 1'000'000'000;
    constexpr std::int64_t DAY = 86'400;
    const bool isCoarse = modifiedNanoseconds == 0 || changedNanoseconds == 0;
    const auto isOld = [&](std::int64_t seconds, std::int64_t nanoseconds) {
        // A file may have any time. The product below must not overflow.
        if (seconds > now.tv_sec || seconds < 0)
            return false;
        const std::int64_t age = std::min<std::int64_t>(now.tv_sec - seconds, DAY) * SECOND +
                                 (std::int64_t{now.tv_nsec} - nanoseconds);
        return age > (isCoarse ? COARSE_GRAIN : FINE_GRAIN);
    };
    return isOld(modifiedSeconds, modifiedNanoseconds) && isOld(changedSeconds, changedNanoseconds);
}

bool FileStamp::isSettledNow() const
{
    timespec now = {};
    return ::clock_gettime(CLOCK_REALTIME, &now) == 0 && isSettled(now);
}

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

struct MetadataCache::Shard
{
    mutable std::mutex mutex;
    std::size_t most = 0;
    std::unordered_map<std::string, Entry, TextHash, std::equal_to<>> entries;
    std::minstd_rand random;

    /// Removes an entry of a random bucket.
    void dropOne()
    {
        for (std::size_t bucket = random() % entries.bucket_count();;
             bucket = (bucket + 1) % entries.bucket_count())
            if (const auto first = entries.begin(bucket); first != entries.end(bucket)) {
                entries.erase(entries.find(first->first));
                return;
            }
    }
};

MetadataCache::MetadataCache(std::size_t mostRecords) : m_shards(new Shard[SHARDS])
{
    setMostRecords(mostRecords);
}

MetadataCache::~MetadataCache() = default;

MetadataCache::Shard& MetadataCache::shardOf(std::string_view fileName) const
{
    // The upper bits, because the table in the shard uses the lower ones.
    return m_shards[(TextHash{}(fileName) >> 48) % SHARDS];
}

void MetadataCache::setMostRecords(std::size_t mostRecords)
{
    for (std::size_t i = 0; i < SHARDS; ++i) {
        Shard& shard = m_shards[i];
        const std::lock_guard guard(shard.mutex);
        shard.most = (mostRecords + SHARDS - 1) / SHARDS;
        while (shard.entries.size() > shard.most)
            shard.dropOne();
    }
}

std::optional<RememberedMetadata> MetadataCache::find(std::string_view fileName,
                                                      const struct stat& status) const
{
    const Shard& shard = shardOf(fileName);
    const std::lock_guard guard(shard.mutex);
    const auto found = shard.entries.find(fileName);
    if (found == shard.entries.end() || found->second.stamp != FileStamp(status))
        return std::nullopt;
    return found->second.metadata();
}

void MetadataCache::remember(std::string_view fileName, const struct stat& status,
                             const RememberedMetadata& metadata)
{
    const FileStamp stamp(status);
    if (!stamp.isSettledNow())
        return;
    Shard& shard = shardOf(fileName);
    const std::lock_guard guard(shard.mutex);
    if (shard.most == 0)
        return;
    const auto known = shard.entries.find(fileName);
    if (known != shard.entries.end()) {
        known->second = Entry(stamp, metadata);
        return;
    }
    if (shard.entries.size() >= shard.most)
        shard.dropOne();
    shard.entries.emplace(std::string(fileName), Entry(stamp, metadata));
}

void MetadataCache::forget(std::string_view fileName)
{
    Shard& shard = shardOf(fileName);
    const std::lock_guard guard(shard.mutex);
    if (const auto known = shard.entries.find(fileName); known != shard.entries.end())
        shard.entries.erase(known);
}

std::size_t MetadataCache::size() const
{
    std::size_t size = 0;
    for (std::size_t i = 0; i < SHARDS; ++i) {
        const std::lock_guard guard(m_shards[i].mutex);
        size += m_shards[i].entries.size();
    }
    return size;
}

MetadataCache& metadataCache()
{
    static auto* const theCache =
        new MetadataCache(static_cast<std::size_t>(ConfigKey::CACHED_RECORDS.standard()));
    return *theCache;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
