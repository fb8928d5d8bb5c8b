#pragma once
// Discoveries on another host: the backend of a host that is not the master.
//
// This backend writes a record to the master's service. It reads a record from the service of the
// host that produced it. A call may take as long as the ORB's request limit; none throws.
//
// The configuration bounds what another host may send: REMOTE_MAX_RECORDS, REMOTE_MAX_BYTES and
// REMOTE_MAX_SECONDS. Beyond a bound the operation fails and drops what it received. Every
// operation gives up when the service shuts down.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <tlx/Corba.h>
#include <tlx/Hostname.h>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

class PulledBytes;

/// A payload on another host. One thread at a time uses it. If it is destroyed with an open writer,
/// the writer and its bytes stay on the master until it gives them up. The wire contract cannot
/// abandon a writer. ServiceCounters counts these writers.
class DISCSRV_EXPORT RemoteCollectionData : public CollectionData
{
  public:
    /// Makes the payload of a new record, to write it.
    explicit RemoteCollectionData(DiscoveryQuery query);
    /// Makes the payload of a record from another host's page, and copies that record.
    explicit RemoteCollectionData(const Remote::Discovery& discovery);
    ~RemoteCollectionData() override;

    /// OM_UPDATE opens a writer on the master. OM_READ fetches the whole payload again from the
    /// record's source. It fails if the payload has no bytes.
    /// @param arg the filter for the source of the data; OM_UPDATE ignores it.
    bool open(OpenMode mode, const char* arg) override;
    std::size_t readCollection(std::size_t length, void* buffer) const override;
    /// Sends the bytes in chunks of at most 1024. After a failure persist stores nothing.
    bool writeCollection(std::size_t length, const void* buffer) const override;
    /// Closes the writer and returns the result of the whole write.
    DiscoveryResult persist();

    // The record's descriptions. The record stays their owner.
    void setSubject(const Subject* subject) { m_subject = subject; }
    void setAuthority(const Authority* authority) { m_authority = authority; }
    void setAttributes(const CollectionAttributes* attributes) { m_attributes = attributes; }

    /// The result of putCollection: DS_OPEN_FAILED before that call, a success for a payload that
    /// is only read.
    const DiscoveryResult& getResult() const { return m_result; }

    /// Sets the result to DS_OPEN_FAILED.
    // Compat(name-initalize): programs built against the headers call it by this name.
    void initalizeDR();

    static constexpr std::size_t CHUNK_BYTES = 1024;
    static constexpr std::int32_t FIRST_CACHE_BYTES = 1024;

  private:
    void getMasterServerName(TlxHostname& out) const;
    Remote::DiscoveryService_ptr connect() const;
    bool failOpen(const std::string& why);
    bool openWrite();
    bool openRead(const char* filter);
    bool fetch(Remote::CollectionDataIterator_ptr iterator);
    bool append(const Remote::CollectionDataSeq& page);
    void dropCache();
    void dropWriter() const;

    Remote::Discovery_var m_discovery;
    const Subject* m_subject = nullptr;
    const Authority* m_authority = nullptr;
    const CollectionAttributes* m_attributes = nullptr;
    DiscoveryQuery m_query = DQ_UNDEFINED;
    DiscoveryResult m_result{};
    mutable Remote::RemoteWriter_var m_writer;
    mutable bool m_spoilt = false; ///< a write failed; writing is const in every backend
    bool m_cached = false;
    std::vector<unsigned char> m_cache; ///< its size is the capacity
    std::int32_t m_length = 0;
    mutable std::int64_t m_position = 0;
};

/// A record on another host.
class DISCSRV_EXPORT RemoteDiscovery : public Discovery
{
  public:
    /// Makes a new record, to write it, and becomes the owner of data.
    RemoteDiscovery(RemoteCollectionData* data, DiscoveryQuery query);
    /// Makes a record of another host's page, without attributes, and becomes the owner of data.
    RemoteDiscovery(RemoteCollectionData* data, const Remote::Discovery& discovery);

    void setAuthority(Authority* authority) override;
    void setSubject(Subject* subject) override;
    void setAttributes(CollectionAttributes* attributes) override;
    DiscoveryResult persist() override;
    DiscoveryResult open(OpenMode mode, const char* arg) override;

  protected:
    ~RemoteDiscovery() override = default;

  private:
    RemoteCollectionData* remoteData() const;
};

/// The records of another host's iterator. The constructor fetches all of them. If it cannot, the
/// iterator has no records and getFailure returns the reason.
class DISCSRV_EXPORT RemoteDiscoveryIterator : public virtual DiscoveryIterator
{
  public:
    /// Becomes the owner of the reference, and releases the other host's iterator. Does not throw.
    RemoteDiscoveryIterator(AuthorityType type, const std::string& subject,
                            const std::string& authority, Remote::DiscoveryIterator_ptr iterator);

    Discovery* getNext() override;

    /// Why the records are missing, for a log line; empty if they were fetched.
    const std::string& getFailure() const { return m_failure; }

    /// How many bytes the fetched records take in memory, roughly. All such lists and all pulled
    /// collections together have at most MAX_PULLED_BYTES.
    std::size_t heldBytes() const;

  protected:
    ~RemoteDiscoveryIterator() override;

  private:
    bool fetchPage(Remote::DiscoveryIterator_ptr iterator);

    std::vector<Remote::Discovery_var> m_discoveries;
    std::size_t m_next = 0;
    std::uint64_t m_bytes = 0; ///< the size of all texts
    std::unique_ptr<PulledBytes> m_held;
    std::string m_failure;
};

/// The backend. A process has one; any thread may use it.
class DISCSRV_EXPORT RemoteDBCreator : public virtual DiscoveryCreator
{
  public:
    /// Reads the host configuration, once in a process. It may resolve names, for at most 5
    /// seconds.
    RemoteDBCreator();
    ~RemoteDBCreator() override;

    /// Do not call it: it fails an assertion and returns null. The repository queries other hosts.
    DiscoveryIterator* getIterator(DiscoveryQuery query) const override;
    /// Both make a record. The caller releases it.
    Discovery* newDiscovery(DiscoveryQuery query) override;
    Discovery* newDiscovery(const Remote::Discovery& discovery);

    /// True if this host is the master.
    bool isMaster() const { return m_isMaster; }

  private:
    void setIsMaster();

    bool m_isMaster = false;
};

DISCSRV_EXPORT RemoteDBCreator* getRemoteDiscoveryDatabase();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
