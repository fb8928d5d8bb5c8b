#pragma once
// Discoveries that are kept on another host: the backend of a host that is not the master.
//
// A record is written to the master's service, and read from the service of the host that produced
// it. Every call may take as long as the ORB's request limit; none throws. Whatever another host
// sends has a bound (REMOTE_MAX_RECORDS, REMOTE_MAX_BYTES and REMOTE_MAX_SECONDS of the
// configuration); beyond it the operation fails, and what was received is given back. All are given
// up when the service is shutting down.

#include <cstdint>
#include <string>
#include <vector>

#include <tlx/Corba.h>
#include <tlx/Hostname.h>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// A payload on another host. Used by one thread at a time. Destroyed with a writer still open it
/// leaves that writer, and what it has written, on the master until that stops: the contract has no
/// way to give one up. These are counted (ServiceCounters).
class DISCSRV_EXPORT RemoteCollectionData : public CollectionData
{
  public:
    /// For a new record, to be written.
    explicit RemoteCollectionData(DiscoveryQuery query);
    /// For a record of another host's page, which is copied.
    explicit RemoteCollectionData(const Remote::Discovery& discovery);
    ~RemoteCollectionData() override;

    /// OM_UPDATE opens a writer on the master; OM_READ fetches the whole payload from the record's
    /// source, afresh each time. A payload without bytes cannot be opened for reading.
    /// @param arg of OM_READ: handed to the host that has the data.
    bool open(OpenMode mode, const char* arg) override;
    std::size_t readCollection(std::size_t length, void* buffer) const override;
    /// Sends the bytes in chunks of at most 1024. A payload that lost some is never persisted.
    bool writeCollection(std::size_t length, const void* buffer) const override;
    /// Closes the writer: the outcome of the whole write.
    DiscoveryResult persist();

    // The record's descriptions; they stay the record's.
    void setSubject(const Subject* subject) { m_subject = subject; }
    void setAuthority(const Authority* authority) { m_authority = authority; }
    void setAttributes(const CollectionAttributes* attributes) { m_attributes = attributes; }

    /// What putCollection answered; DS_OPEN_FAILED before, and a success for what is only read.
    const DiscoveryResult& getResult() const { return m_result; }

    static constexpr std::size_t CHUNK_BYTES = 1024;
    static constexpr std::int32_t FIRST_CACHE_BYTES = 1024;

  private:
    void initalizeDR();
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

/// A record that is kept on another host.
class DISCSRV_EXPORT RemoteDiscovery : public Discovery
{
  public:
    /// A new record, to be written. Takes the payload over.
    RemoteDiscovery(RemoteCollectionData* data, DiscoveryQuery query);
    /// A record of another host's page; it has no attributes.
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

/// The records of another host's iterator, all fetched when it is made. Either it has them all or
/// it has none and says so.
class DISCSRV_EXPORT RemoteDiscoveryIterator : public virtual DiscoveryIterator
{
  public:
    /// Takes the reference over and releases the object behind it. Does not throw.
    RemoteDiscoveryIterator(AuthorityType type, const std::string& subject,
                            const std::string& authority, Remote::DiscoveryIterator_ptr iterator);

    Discovery* getNext() override;

    /// Why the list is not whole, for a log line; empty when it is.
    const std::string& getFailure() const { return m_failure; }

  protected:
    ~RemoteDiscoveryIterator() override = default;

  private:
    bool fetchPage(Remote::DiscoveryIterator_ptr iterator);

    std::vector<Remote::Discovery_var> m_discoveries;
    std::size_t m_next = 0;
    std::uint64_t m_bytes = 0; ///< of all texts
    std::string m_failure;
};

/// One a process; any thread.
class DISCSRV_EXPORT RemoteDBCreator : public virtual DiscoveryCreator
{
  public:
    /// Asks the host configuration, once a process; may resolve names, for at most 5 seconds.
    RemoteDBCreator();
    ~RemoteDBCreator() override;

    /// Not supported: another host is queried through the repository. Reported; null.
    DiscoveryIterator* getIterator(DiscoveryQuery query) const override;
    /// A new record, for the caller to release.
    Discovery* newDiscovery(DiscoveryQuery query) override;
    Discovery* newDiscovery(const Remote::Discovery& discovery);

    /// Whether this host is the master.
    bool isMaster() const { return m_isMaster; }

  private:
    void setIsMaster();

    bool m_isMaster = false;
};

DISCSRV_EXPORT RemoteDBCreator* getRemoteDiscoveryDatabase();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
