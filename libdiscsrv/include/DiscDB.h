#pragma once
// The on-disk store of the master: one metadata file and one payload file a record, in one flat
// directory. docs/formats.md tells the bytes, docs/locks.md the locks.
//
// Failures are answered and logged at level 1; nothing is thrown. A record or an iterator is used
// by one thread at a time; any number of threads and processes may work on one directory.

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include <dirent.h>

#include <tlx/FileLock.h>
#include <tlx/Pathname.h>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// A metadata document beyond this size is not a record of ours; it is neither loaded nor does it
/// protect what it stands for.
constexpr std::size_t MAX_METADATA_BYTES = 1u << 20;

/// The numbers that temporary payloads may have: 0 to one less than this.
constexpr unsigned MAX_TEMPORARY_NAMES = 1000;

/// Whether a record's time is over. A record without attributes, or with an expiry time of zero,
/// never expires.
DISCSRV_EXPORT bool isExpired(const Discovery* discovery);

/// The directory-wide lock on "Update.lock": whoever writes a temporary payload holds it shared,
/// the start-up clean-up that deletes temporary payloads holds it alone.
class DISCSRV_EXPORT CleanupLock
{
  public:
    enum LockMode
    {
        LM_EXCLUSIVE = 0, ///< fails at once when anybody else holds it
        LM_SHARED = 1     ///< waits for other processes
    };

    CleanupLock(const char* dir, LockMode mode);
    CleanupLock(const CleanupLock&) = delete;
    CleanupLock& operator=(const CleanupLock&) = delete;
    virtual ~CleanupLock();

    bool isLocked() const { return m_locked; }

  private:
    std::unique_ptr<FileLock> m_fileLock;
    bool m_locked = false;
};

/// The payload of a stored record. A new one is written to a numbered temporary file, and takes the
/// stored one's place in persist.
class DISCSRV_EXPORT DBCollectionData : public CollectionData
{
  public:
    /// @param path the record's ".dat" file; for a new record any name in the store's directory.
    explicit DBCollectionData(const TlxPathname& path);
    /// A temporary payload that was not persisted is deleted.
    ~DBCollectionData() override;

    bool open(OpenMode mode, const char* arg) override;
    /// A failed read is the largest value.
    std::size_t readCollection(std::size_t length, void* buffer) const override;
    bool writeCollection(std::size_t length, const void* buffer) const override;

    /// Moves the payload written to its place, replacing what is there; an empty one when none was
    /// opened. When it answers true the payload survives a power cut. Always false for a spoilt
    /// one.
    bool persist(const TlxPathname& target);

    /// Gives up and deletes a payload that is being written. Always true.
    bool cleanup();

    /// Deletes the stored payload; true also when it was missing.
    bool expire() const;

    /// The lock under which the record was found, null for none. While it is set, opening for
    /// reading keeps out of the way of writers of the same record in this process. Not owned.
    void setRecordLock(const FileLock* lock) { m_recordLock = lock; }

    const TlxPathname& path() const { return m_path; }

    /// Whether bytes were lost on the way, or an earlier persist failed: what is left of such a
    /// payload must not take the place of a stored one. Until the next open.
    bool isSpoilt() const { return m_spoilt; }

  private:
    bool openTemporary();
    bool openStored();

    TlxPathname m_path;
    FileDescriptor m_file;
    std::unique_ptr<TlxPathname> m_finalPath;
    OpenMode m_mode = OM_READ;
    std::unique_ptr<CleanupLock> m_cleanupLock;
    const FileLock* m_recordLock = nullptr;
    mutable bool m_spoilt = false; ///< writing is const in every backend
};

/// A record of the store. Its key is the triple of authority type, authority and subject, from
/// which its file names are built: a second record with the same key replaces the first, unless its
/// priority is lower.
class DISCSRV_EXPORT DBDiscovery : public Discovery
{
  public:
    /// A found record.
    /// @param lock the open and locked metadata file; owned.
    /// @param metadataPath its path.
    /// @param data owned.
    DBDiscovery(std::unique_ptr<FileLock> lock, const TlxPathname& metadataPath,
                DBCollectionData* data, DiscoveryQuery query);
    /// A new record in a directory. Owns data.
    DBDiscovery(const TlxPathname& dbPath, DBCollectionData* data, DiscoveryQuery query);

    /// DS_SUCCESS: the record survives a power cut. DS_DATA_EXISTS: one of higher priority is
    /// stored. DS_OPEN_FAILED: the file system refused. On success the record's lock is held until
    /// this object goes.
    DiscoveryResult persist() override;
    DiscoveryResult open(OpenMode mode, const char* arg) override;
    void setAuthority(Authority* authority) override;
    void setSubject(Subject* subject) override;
    void setAttributes(CollectionAttributes* attributes) override;
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    /// Releases the lock.
    ~DBDiscovery() override;

    /// Reads the metadata through the held lock; false when it holds no record.
    bool load();
    /// The same from a text.
    bool load(const char* xml);

    /// Whether this record may replace what is stored under its key. A lock held before is given
    /// up.
    bool canOverride();

    /// Removes a record whose time is over, both files.
    /// @return 0 when it was removed, 1 when it turned out to be current, 2 when it could not be.
    int expire();

    /// Writes a document at a descriptor's position and ends the file there. A full disk leaves the
    /// old content as it was.
    bool writeMetadata(int fd, const std::string& xml);

    /// The names of the two files; empty when authority or subject is missing.
    std::string generateMetabaseFileName() const;
    std::string generatecollectionBaseFileName() const;

  private:
    std::string generateFileName(const char* suffix) const;
    bool hasUsableFileName() const;
    bool loadInternal();
    void holdLock(std::unique_ptr<FileLock> lock);
    bool mayReplaceStored(int fd);
    DiscoveryResult persistLocked(const TlxPathname& metadataPath, const std::string& xml);
    bool removeFiles();

    std::unique_ptr<FileLock> m_fileLock;
    std::string m_metadataText;
    TlxPathname m_dbPath;
    TlxPathname m_metadataPath; ///< of a found record
};

/// Scans the store's directory. Starts matching everything; narrow it before the first getNext.
class DISCSRV_EXPORT DBDiscoveryIterator : public virtual DiscoveryIterator
{
  public:
    /// A directory that cannot be opened yields nothing.
    explicit DBDiscoveryIterator(const char* dir);
    /// The next record, with its read lock. Removes expired records that it meets, and skips what
    /// is no record. Records of AT_REMOTEPULL are found only when they are asked for.
    Discovery* getNext() override;
    ~DBDiscoveryIterator() override;

  private:
    DIR* m_dir;
    std::string m_pattern;
};

/// The store: finds records, and makes new ones and iterators. One a process; any thread.
class DISCSRV_EXPORT DiscoveryDBCreator : public virtual DiscoveryCreator
{
  public:
    DiscoveryDBCreator();
    ~DiscoveryDBCreator() override;
    /// Null before init.
    DiscoveryIterator* getIterator(DiscoveryQuery query) const override;
    /// Null before init.
    Discovery* newDiscovery(DiscoveryQuery query) override;

    /// Names the store's directory, once a process, makes it and removes temporary payloads that a
    /// crash left. An empty name stands for db/discovery under the product root.
    void init(const std::string& dir);

    /// Opens one record by the name of its metadata file: a reference for the caller to release,
    /// with a read lock that lasts as long. Null when there is none or its time was over.
    Discovery* getDiscovery(const char* fileName);

  private:
    bool setupDB(const std::string& dir);

    TlxPathname m_dbPath;
    std::atomic<bool> m_init{false};
};

/// The store of this process.
DISCSRV_EXPORT DiscoveryDBCreator* getDiscoveryDBDatabase();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
