#pragma once
// The on-disk store of the master. Each record has one metadata file and one payload file in one
// flat directory. docs/formats.md describes the bytes, docs/locks.md the locks.
//
// A failure is returned and logged at level 1; nothing is thrown. One thread at a time uses a
// record or an iterator. Any number of threads and processes may work on one directory.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tlx/FileLock.h>
#include <tlx/Pathname.h>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The largest metadata document. The store does not load a longer one, and lets new records
/// replace it.
constexpr std::size_t MAX_METADATA_BYTES = 1u << 20;

/// Temporary payloads have numbers from 0 to one less than this.
constexpr unsigned MAX_TEMPORARY_NAMES = 1000;

class TemporaryNumber;
struct DirectoryNames;

/// True if the record's expiry time has passed. A record without attributes, or with an expiry time
/// of zero, never expires.
DISCSRV_EXPORT bool isExpired(const Discovery* discovery);

/// The lock on "Update.lock", one for a directory. Every writer of a temporary payload holds it
/// shared. The clean-up at start, which deletes temporary payloads, holds it alone. The object
/// holds the lock until it is destroyed.
class DISCSRV_EXPORT CleanupLock
{
  public:
    enum LockMode
    {
        LM_EXCLUSIVE = 0, ///< fails at once if another process or writer holds the lock
        LM_SHARED = 1     ///< waits for other processes
    };

    CleanupLock(const char* dir, LockMode mode);
    CleanupLock(const CleanupLock&) = delete;
    CleanupLock& operator=(const CleanupLock&) = delete;
    virtual ~CleanupLock();

    bool isLocked() const { return m_locked; }
    /// False if somebody has removed or replaced the file since. Then this lock keeps nobody out.
    bool isStillInPlace() const;

  private:
    const TlxPathname m_path;
    std::unique_ptr<FileLock> m_fileLock;
    bool m_locked = false;
};

/// The payload of a stored record. A new payload goes to a numbered temporary file first; persist
/// moves it over the stored one. The object owns its open file and its hold on "Update.lock".
class DISCSRV_EXPORT DBCollectionData : public CollectionData
{
  public:
    /// @param path the record's ".dat" file. For a new record any name in the store's directory.
    explicit DBCollectionData(const TlxPathname& path);
    /// Deletes a temporary payload that was not persisted.
    ~DBCollectionData() override;

    /// Ignores arg.
    bool open(OpenMode mode, const char* arg) override;
    /// Returns the largest value if the read fails.
    std::size_t readCollection(std::size_t length, void* buffer) const override;
    bool writeCollection(std::size_t length, const void* buffer) const override;

    /// Syncs the bytes of the written payload. A power cut may still lose its temporary name.
    /// Begins an empty payload if none was opened. Returns false for a spoilt payload. A failure
    /// gives the payload up and frees its disk space.
    bool prepare();

    /// Prepares the payload, moves it to its place and replaces the stored one. Once it has
    /// returned true, all names in the store's directory survive a power cut. A failure before the
    /// rename gives the payload up, as prepare does. If the sync of the directory fails, the new
    /// payload stays in its place, but a power cut may lose it.
    bool persist(const TlxPathname& target);

    /// Gives up and deletes the temporary payload. Always returns true.
    bool cleanup();

    /// Does a cleanup after a failure: the payload also counts as spoilt until the next open.
    void giveUp();

    /// Deletes the stored payload. Returns true even if it was missing.
    bool expire() const;

    /// True after a failed write or a failed persist, until the next open. A spoilt payload must
    /// not replace a stored one.
    bool isSpoilt() const { return m_spoilt; }

  private:
    bool openTemporary();
    bool openStored();
    bool holdsTemporary();
    bool replaceStored(const TlxPathname& target, bool replaces);

    TlxPathname m_path;
    FileDescriptor m_file;
    std::unique_ptr<TlxPathname> m_finalPath;
    OpenMode m_mode = OM_READ;
    std::unique_ptr<CleanupLock> m_cleanupLock;
    std::unique_ptr<TemporaryNumber> m_number; ///< of the temporary payload
    mutable std::size_t m_written = 0;         ///< bytes of the payload
    mutable std::size_t m_begun = 0;           ///< bytes that the disk has begun to write
    mutable bool m_prepared = false;           ///< all bytes are synced
    mutable bool m_spoilt = false;             ///< writing is const in every backend
};

/// A record of the store. Its key is the triple of authority type, authority and subject, and its
/// file names contain the key. A second record with the same key replaces the first one, unless its
/// priority is lower.
class DISCSRV_EXPORT DBDiscovery : public Discovery
{
  public:
    /// Makes a found record.
    /// @param lock the open and locked metadata file. The record keeps it locked until it is
    /// destroyed.
    /// @param metadataPath the path of that file.
    /// @param data the record becomes its owner.
    DBDiscovery(std::unique_ptr<FileLock> lock, const TlxPathname& metadataPath,
                DBCollectionData* data, DiscoveryQuery query);
    /// Makes a new record for a directory and becomes the owner of data.
    DBDiscovery(const TlxPathname& dbPath, DBCollectionData* data, DiscoveryQuery query);

    /// Returns DS_SUCCESS once the record survives a power cut. Returns DS_DATA_EXISTS if a record
    /// of higher priority is stored, or if another process keeps it locked, so that its priority
    /// cannot be read. Returns DS_OPEN_FAILED if the file system refuses, or if that process keeps
    /// the lock later. After a success the object holds the record's lock until it is destroyed.
    DiscoveryResult persist() override;
    DiscoveryResult open(OpenMode mode, const char* arg) override;
    /// The setters also forget a metadata document that was read before.
    void setAuthority(Authority* authority) override;
    void setSubject(Subject* subject) override;
    void setAttributes(CollectionAttributes* attributes) override;
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    /// Releases the lock.
    ~DBDiscovery() override;

    /// Reads the metadata from the locked file. Returns false if the file holds no record.
    bool load();
    /// Reads the metadata from a text; null is an empty text. For plug-ins: the service reads
    /// files.
    bool load(const char* xml);

    /// True if this record may replace the stored record of its key. It first releases the lock
    /// that this object holds.
    bool canOverride();

    /// Removes both files of an expired record.
    /// @return 0 if it removed the record, 1 if the record is current after all, 2 on failure.
    int expire();
    /// True if expire failed because somebody else uses the record, and it expired less than five
    /// minutes ago. An abandoned read may last as long.
    bool isInUse() const { return m_isInUse; }

    /// Writes a document at the beginning of a file, where its descriptor is, and cuts the file
    /// there. A full disk leaves the old content unchanged.
    bool writeMetadata(int fd, const std::string& xml);

    /// Return the names of the two files, empty if authority or subject is missing.
    // Compat(name-collection-base): programs call them under these names.
    std::string generateMetabaseFileName() const;
    std::string generatecollectionBaseFileName() const;

  private:
    std::string generateFileName(const char* suffix) const;
    bool hasUsableFileName() const;
    bool loadInternal();
    void holdLock(std::unique_ptr<FileLock> lock);
    bool loadFile(const struct stat& status);
    bool mayReplace(unsigned int storedPriority) const;
    std::optional<unsigned int> knownPriority(const TlxPathname& metadataPath,
                                              const struct stat& status) const;
    unsigned int readPriority(const LockedFile& file);
    DiscoveryResult persistLocked(LockedFile& file, const TlxPathname& metadataPath,
                                  const std::string& xml);
    bool replaceMetadata(LockedFile& file, const TlxPathname& metadataPath, const std::string& xml);
    bool removeFiles();

    friend class DiscoveryDBCreator;

    struct SeenPriority;

    std::unique_ptr<FileLock> m_fileLock;
    bool m_isInUse = false;
    std::unique_ptr<SeenPriority> m_seen;
    std::string m_metadataText;
    TlxPathname m_dbPath;
    TlxPathname m_metadataPath; ///< of a found record
};

/// Finds the matching records of the store. A new iterator matches every record; narrow it before
/// the first getNext. Names without wildcards are looked up: one file, or one for each authority
/// type. A pattern is compared with the names of the directory, which all iterators share.
///
/// An iterator waits for one record that another process locks. After that wait has timed out, it
/// only tries the locks of further records, and leaves out those that it does not get.
class DISCSRV_EXPORT DBDiscoveryIterator : public virtual DiscoveryIterator, public RecordLister
{
  public:
    /// An iterator over a directory that cannot be opened has no records.
    explicit DBDiscoveryIterator(const char* dir);
    /// Returns the next record, with its read lock. It removes the expired records that it meets,
    /// and skips files that hold no record. It returns records of AT_REMOTEPULL only if its type is
    /// AT_REMOTEPULL.
    Discovery* getNext() override;
    /// The same without a lock. It opens only the files whose content it does not know.
    std::optional<ListedRecord> listNext() override;
    ~DBDiscoveryIterator() override;

  private:
    struct Candidate;
    void begin();
    std::optional<Candidate> nextCandidate();
    std::optional<Candidate> lookUp(const std::string& name);
    std::optional<Candidate> nextMatch(const std::string& pattern);
    AutoDereference<Discovery> openRecord(const Candidate& candidate);
    bool isShown(AuthorityType type) const;

    const TlxPathname m_path;
    std::optional<std::chrono::steady_clock::time_point> m_begun;
    bool m_isExact = false;
    std::vector<std::string> m_patterns; ///< the last one is in use
    std::string m_last;                  ///< the name found last with this pattern
    std::weak_ptr<const DirectoryNames> m_names;
    std::shared_ptr<const DirectoryNames> m_brokenNames; ///< of a walk that broke off
    LockWait m_wait = LockWait::WAIT;
    std::size_t m_place = 0; ///< in m_names
};

/// The store. It finds records, and makes new records and iterators. A process has one; any thread
/// may use it.
class DISCSRV_EXPORT DiscoveryDBCreator : public virtual DiscoveryCreator
{
  public:
    DiscoveryDBCreator();
    ~DiscoveryDBCreator() override;
    /// Returns null before init.
    DiscoveryIterator* getIterator(DiscoveryQuery query) const override;
    /// Returns null before init.
    Discovery* newDiscovery(DiscoveryQuery query) override;

    /// Creates the store's directory and removes the temporary payloads that a crash left. A
    /// process calls it once. An empty name stands for db/discovery under the product root.
    void init(const std::string& dir);

    /// Opens one record by the name of its metadata file. The record holds a read lock until it is
    /// destroyed; the caller releases the reference. Returns null if the file holds no record or
    /// the record has expired.
    Discovery* getDiscovery(const char* fileName);

  private:
    bool setupDB(const std::string& dir);

    /// How an iterator opens a record.
    struct Lookup
    {
        LockWait wait = LockWait::WAIT;
        bool logsMissing = true;
        bool hasTimedOut = false; ///< set if another process kept its lock for the whole wait
    };
    Discovery* openStored(const char* fileName, Lookup& lookup);

    friend class DBDiscoveryIterator;

    TlxPathname m_dbPath;
    std::atomic<bool> m_init{false};
};

/// The store of this process.
DISCSRV_EXPORT DiscoveryDBCreator* getDiscoveryDBDatabase();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
