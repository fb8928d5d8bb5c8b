#pragma once
// The record model, which all storage backends share.
//
// A discovery is what one producer (its authority) found out about one subject (usually a host). It
// has a few attributes and an opaque payload, the collection data. Every backend derives its record
// from Discovery, its payload from CollectionData and its query from DiscoveryIterator.
//
// One thread at a time uses an object of these classes, unless its comment says otherwise. A
// failure is logged and returned (false, null, a DiscoveryResult), never thrown.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include <DiscoverySvc.hh> // the enumerations and DiscoveryResult, shared with the wire
#include <tlx/Lockable.h>
#include <tlx/ObjTime.h>
#include <tlx/RefCounted.h>
#include <tlx/StatusMsg.h>
#include <tlx/String.h>
#include <tlx/Uri.h>
#include <tlx/Xml.h>

#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The element of a record's priority, in metadata documents and in explorers' documents.
constexpr const char* PRIORITY = "Priority";

inline bool isSuccess(const DiscoveryResult& result)
{
    return result.discStatus == DS_SUCCESS;
}

/// The common base of Subject and Authority: an optional status message, which is read and written
/// inside the description's element.
class DISCSRV_EXPORT Description : public XmlInterface
{
  public:
    /// @param statusMsg may be null. The description takes a reference of its own.
    explicit Description(const StatusMsg* statusMsg);

    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override;
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;
    ~Description() override;

    /// For plug-ins: the status message, null if the description has none. The description stays
    /// its owner.
    const StatusMsg* getStatusMsg() const { return m_statusMsg.get(); }

  private:
    AutoDereference<const StatusMsg> m_statusMsg;
};

/// The thing that a discovery is about.
class DISCSRV_EXPORT Subject : public Description
{
  public:
    /// A name is URI text (tlx/Uri.h). An empty name fails an assertion, and the subject stays
    /// without a name.
    explicit Subject(const std::string& name, const StatusMsg* statusMsg = nullptr);
    explicit Subject(const Uri& uri, const StatusMsg* statusMsg = nullptr);

    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    /// Both compare the display names and ignore the case of their letters.
    bool operator==(const Subject& other) const;
    bool operator>(const Subject& other) const;

    /// The display form of the name.
    const TlxString& getSubject() const { return m_subject; }
    /// The file-name form, which lookups compare and file names contain.
    const TlxString& getSubjectFileName() const { return m_subjectFileName; }

  private:
    void setName(const std::string& uriText);

    TlxString m_subject;
    TlxString m_subjectFileName;
};

/// The producer of a discovery.
class DISCSRV_EXPORT Authority : public Description
{
  public:
    /// The name follows the rules of Subject.
    Authority(const std::string& name, AuthorityType type, const StatusMsg* statusMsg = nullptr);
    /// The name is the URI's authority part.
    Authority(const Uri& uri, AuthorityType type, const StatusMsg* statusMsg = nullptr);
    Authority(const UriAuthority& authority, AuthorityType type,
              const StatusMsg* statusMsg = nullptr);

    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    /// True if the types are equal, and the names are equal apart from the case of their letters.
    bool operator==(const Authority& other) const;
    /// True if the name is greater or the type is greater. So two authorities can each be greater
    /// than the other one. The explorer sets depend on it.
    bool operator>(const Authority& other) const;

    const TlxString& getName() const { return m_name; }
    const TlxString& getNameFileName() const { return m_nameFileName; }
    AuthorityType getType() const { return m_type; }

  private:
    void setName(const UriAuthority& authority);

    TlxString m_name;
    TlxString m_nameFileName;
    AuthorityType m_type;
};

/// Kind, storage, priority and times of a discovery.
class DISCSRV_EXPORT CollectionAttributes : public XmlInterface
{
  public:
    /// The expiry time is now + 1.25 times timeToLive. The extra quarter lets a producer be late.
    /// A time to live of zero makes a record that never expires; its expiry time is zero.
    CollectionAttributes(CollectionType type, CollectionStorage storage,
                         const TlxObjTime& discoveryTime, const TlxObjTime& timeToLive,
                         unsigned int priority);

    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;
    ~CollectionAttributes() override;

    CollectionType getType() const { return m_type; }
    CollectionStorage getStorage() const { return m_storage; }
    const TlxObjTime& getDiscoveryTime() const { return m_discoveryTime; }
    const TlxObjTime& getTimeToLive() const { return m_timeToLive; }
    const TlxObjTime& getExpiresTime() const { return m_expiresTime; }
    /// For plug-ins: the service itself only reads and writes the signature.
    const TlxString& getSignature() const { return m_signature; }
    unsigned int getPriority() const { return m_priority; }

    void setDiscoveryTime(const TlxObjTime& time) { m_discoveryTime = time; }
    void setExpiresTime(const TlxObjTime& time) { m_expiresTime = time; }
    void setSignature(const TlxString& signature) { m_signature = signature; }
    void setPriority(unsigned int priority) { m_priority = priority; }

  private:
    CollectionType m_type;
    CollectionStorage m_storage;
    TlxObjTime m_discoveryTime;
    TlxObjTime m_timeToLive;
    TlxObjTime m_expiresTime;
    TlxString m_signature;
    unsigned int m_priority;
};

/// The payload of one discovery, a stream of bytes. It owns open files and connections, so it
/// cannot be copied.
class DISCSRV_EXPORT CollectionData
{
  public:
    CollectionData() = default;
    CollectionData(const CollectionData&) = delete;
    CollectionData& operator=(const CollectionData&) = delete;
    virtual ~CollectionData();

    /// OM_READ opens the payload for reading, OM_UPDATE begins a new one. A second open first gives
    /// up what the first one opened. Returns false on failure and logs it.
    /// @param arg each backend gives it a meaning of its own.
    virtual bool open(OpenMode mode, const char* arg) = 0;

    /// Reads up to length bytes. Returns the number of bytes read, 0 at the end. A count above
    /// length is a failure: a backend may return the largest value.
    // Compat(failed-read-count): plug-ins get a failed read as the largest number.
    virtual std::size_t readCollection(std::size_t length, void* buffer) const = 0;

    /// Appends length bytes. Returns false on failure.
    virtual bool writeCollection(std::size_t length, const void* buffer) const = 0;

    /// Why the last open failed: the text that the backend logged. Empty after a success, and from
    /// a backend that only logs. Not virtual: explorers in plug-ins rely on the order of the
    /// virtual operations.
    const std::string& getOpenFailure() const { return m_openFailure; }

  protected:
    void setOpenFailure(std::string why) { m_openFailure = std::move(why); }

  private:
    std::string m_openFailure;
};

/// One record. A producer gets it from a backend, and sets subject, authority and attributes. Then
/// it opens the record with OM_UPDATE, writes its collection data, and persists it. A reader gets
/// it from an iterator, opens it with OM_READ and reads its collection data until the count is 0.
///
/// A record owns its authority, subject, attributes and collection data. It is shared by reference
/// counts and cannot be copied.
class DISCSRV_EXPORT Discovery : public XmlDocumentInterface, public virtual TLXRefCounted
{
  public:
    /// Takes ownership of data, which may be null.
    Discovery(CollectionData* data, DiscoveryQuery query);
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

    XmlObjParseContext* getObjParseContext(const XMLCh* name) override;

    /// Makes the record visible to later iterators. Returns {DS_SUCCESS, 0} or the reason of the
    /// failure.
    virtual DiscoveryResult persist() = 0;

    /// Opens the payload. Returns DS_SUCCESS, DS_OPEN_FAILED if the payload cannot be opened, or
    /// DS_DATA_EXISTS if a stored record of higher priority forbids the update.
    virtual DiscoveryResult open(OpenMode mode, const char* arg) = 0;

    /// Each takes ownership of its argument, which may be null, and deletes the object that it
    /// replaces. Setting the object that the record holds already changes nothing.
    virtual void setAuthority(Authority* authority);
    virtual void setSubject(Subject* subject);
    virtual void setAttributes(CollectionAttributes* attributes);
    /// For plug-ins: the service hands the collection data to the constructor.
    virtual void setCollectionData(CollectionData* data);

    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override;
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    ~Discovery() override;

    /// Each returns a part of the record, null when the record lacks it. The record stays its
    /// owner.
    Authority* getAuthority() const { return m_authority.get(); }
    Subject* getSubject() const { return m_subject.get(); }
    CollectionAttributes* getAttributes() const { return m_attributes.get(); }
    CollectionData* getCollectionData() const { return m_collectionData.get(); }
    /// For plug-ins: the service itself keeps the query type and does not read it.
    DiscoveryQuery getQuery() const { return m_query; }

  protected:
    /// True if a document held an enumerator out of range since the last clearDocumentRefused.
    /// Such a record must not be used.
    bool isDocumentRefused() const { return m_documentRefused; }
    void clearDocumentRefused() { m_documentRefused = false; }

  private:
    void startAttributes(class DiscoveryDocContext& context, AttributeList& attributes);
    void startAuthority(class DiscoveryDocContext& context, const XMLCh* name,
                        AttributeList& attributes);
    void startSubject(class DiscoveryDocContext& context, const XMLCh* name,
                      AttributeList& attributes);
    void endDescription(class DiscoveryDocContext& context, const XMLCh* name);
    void endValue(class DiscoveryDocContext& context);
    void refuseDocument(const char* what, const TlxString& value);

    // Destroyed from the last to the first: the collection data before the parts that describe it.
    std::unique_ptr<Authority> m_authority;
    std::unique_ptr<Subject> m_subject;
    std::unique_ptr<CollectionAttributes> m_attributes;
    std::unique_ptr<CollectionData> m_collectionData;
    DiscoveryQuery m_query;
    bool m_documentRefused = false;
};

/// A query over discoveries. It has a position, so it cannot be copied.
class DISCSRV_EXPORT DiscoveryIterator : public virtual TLXRefCounted
{
  public:
    DiscoveryIterator(const DiscoveryIterator&) = delete;
    DiscoveryIterator& operator=(const DiscoveryIterator&) = delete;

    /// Stores the names unchanged. A name is in file-name form, or a wildcard pattern over that
    /// form, or empty for any name. AT_ANYANDALL stands for any type.
    DiscoveryIterator(AuthorityType type, std::string authority, std::string subject);

    /// Returns the next matching record, null at the end. The caller releases the reference.
    virtual Discovery* getNext() = 0;

    /// The setters narrow the query. The text forms ignore a name that is empty or begins with "*".
    /// The URI forms are for plug-ins: the service itself uses the text forms.
    virtual void setAuthority(const std::string& name, AuthorityType type);
    virtual void setAuthority(const Uri& uri, AuthorityType type);
    virtual void setAuthority(const UriAuthority& authority, AuthorityType type);
    virtual void setSubject(const std::string& name);
    virtual void setSubject(const Uri& uri);

    ~DiscoveryIterator() override;

    /// For plug-ins. The backends read the members directly.
    AuthorityType getType() const { return m_type; }
    const std::string& getAuthority() const { return m_authority; }
    const std::string& getSubject() const { return m_subject; }

  protected:
    AuthorityType m_type;
    std::string m_authority; ///< in file-name form; empty for any
    std::string m_subject;   ///< in file-name form; empty for any
};

/// What a page of a listing shows of a record.
struct ListedRecord
{
    std::string subject; ///< in display form, like the authority
    std::string authority;
    AuthorityType type{};
    AutoDereference<Discovery> record; ///< the whole record; may be null
};

/// An iterator that can list records without opening them. Not a part of DiscoveryIterator, because
/// plug-ins rely on the order of its virtual operations.
class DISCSRV_EXPORT RecordLister
{
  public:
    virtual ~RecordLister();
    /// Moves to the next record like getNext; nothing at the end. The two may be mixed.
    virtual std::optional<ListedRecord> listNext() = 0;
};

/// Lists the records of any iterator, which must live as long.
class DISCSRV_EXPORT RecordListing
{
  public:
    explicit RecordListing(DiscoveryIterator& iterator);
    /// Moves to the next record; nothing at the end.
    std::optional<ListedRecord> next();

  private:
    DiscoveryIterator& m_iterator;
    RecordLister* m_lister; ///< null if the iterator opens each record
};

/// A storage backend. A process has one of each kind.
class DISCSRV_EXPORT DiscoveryCreator : protected virtual TlxLockable
{
  public:
    DiscoveryCreator() = default;
    DiscoveryCreator(const DiscoveryCreator&) = delete;
    DiscoveryCreator& operator=(const DiscoveryCreator&) = delete;
    ~DiscoveryCreator() override;
    /// Both return a new object. The caller releases the reference.
    virtual DiscoveryIterator* getIterator(DiscoveryQuery query) const = 0;
    virtual Discovery* newDiscovery(DiscoveryQuery query) = 0;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
