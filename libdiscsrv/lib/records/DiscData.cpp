#include "DiscData.h"

#include <strings.h>

#include <cmath>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscData";

/// A record outlives its time to live by this quarter.
// Compat(expiry-quarter): peers that push late rely on it, computed in double precision.
TlxObjTime gracePeriod(const TlxObjTime& timeToLive)
{
    const double quarter = (static_cast<double>(timeToLive.seconds()) * 1000000.0 +
                            static_cast<double>(timeToLive.microseconds())) *
                           0.25;
    // Any host may send a time to live, and a double may exceed the range of an integer.
    if (quarter >= 9.2e18)
        return TlxObjTime::max();
    if (quarter <= -9.2e18)
        return TlxObjTime();
    return TlxObjTime(static_cast<std::int64_t>(quarter / 1000000.0),
                      static_cast<std::int64_t>(quarter) % 1000000);
}

} // namespace

Description::Description(const StatusMsg* statusMsg)
    : m_statusMsg(AutoDereference<const StatusMsg>::share(statusMsg))
{
}

Description::~Description() = default;

Subject::Subject(const std::string& name, const StatusMsg* statusMsg) : Description(statusMsg)
{
    setName(name);
}

Subject::Subject(const Uri& uri, const StatusMsg* statusMsg) : Description(statusMsg)
{
    setName(uri.getUriEncoding(URI_MASK_DISPLAY).utf8());
}

void Subject::setName(const std::string& uriText)
{
    m_subject = uriEncode(uriText, URI_MASK_DISPLAY);
    m_subjectFileName = uriEncode(m_subject.utf8(), URI_MASK_FILE_NAME);
    (void)TLX_ASSERT(m_subject.size());
}

// Compat(name-ascii-case): plug-ins rely on registrations that ignore the case of ASCII letters.
bool Subject::operator==(const Subject& other) const
{
    return strcasecmp(m_subject.c_str(), other.m_subject.c_str()) == 0;
}

bool Subject::operator>(const Subject& other) const
{
    return strcasecmp(m_subject.c_str(), other.m_subject.c_str()) > 0;
}

Authority::Authority(const std::string& name, AuthorityType type, const StatusMsg* statusMsg)
    : Description(statusMsg), m_type(type)
{
    (void)TLX_ASSERT(name.size());
    UriAuthority authority;
    authority.setAuthority(name);
    setName(authority);
}

Authority::Authority(const Uri& uri, AuthorityType type, const StatusMsg* statusMsg)
    : Description(statusMsg), m_type(type)
{
    setName(uri.authority());
}

Authority::Authority(const UriAuthority& authority, AuthorityType type, const StatusMsg* statusMsg)
    : Description(statusMsg), m_type(type)
{
    setName(authority);
}

void Authority::setName(const UriAuthority& authority)
{
    m_name = authority.getUriEncoding(URI_MASK_DISPLAY);
    m_nameFileName = authority.getUriEncoding(URI_MASK_FILE_NAME);
    (void)TLX_ASSERT(m_name.size());
}

// Compat(name-ascii-case): see Subject::operator==.
bool Authority::operator==(const Authority& other) const
{
    return strcasecmp(m_name.c_str(), other.m_name.c_str()) == 0 && m_type == other.m_type;
}

bool Authority::operator>(const Authority& other) const
{
    // Compat(authority-greater): plug-ins and the explorer sets rely on this: an authority with a
    // lesser name and a greater type counts as greater.
    if (strcasecmp(m_name.c_str(), other.m_name.c_str()) > 0)
        return true;
    return static_cast<int>(m_type) > static_cast<int>(other.m_type);
}

CollectionAttributes::CollectionAttributes(CollectionType type, CollectionStorage storage,
                                           const TlxObjTime& discoveryTime,
                                           const TlxObjTime& timeToLive, unsigned int priority)
    : m_type(type), m_storage(storage), m_discoveryTime(discoveryTime), m_timeToLive(timeToLive),
      m_priority(priority)
{
    if (!m_timeToLive.isZero())
        m_expiresTime = TlxObjTime::now() + m_timeToLive + gracePeriod(m_timeToLive);
}

CollectionAttributes::~CollectionAttributes() = default;

CollectionData::~CollectionData() = default;

Discovery::Discovery(CollectionData* data, DiscoveryQuery query)
    : XmlDocumentInterface(nullptr, "DiscoveryData"), m_collectionData(data), m_query(query)
{
}

Discovery::~Discovery() = default;

namespace {

/// Setting the object that is held already must not delete it.
template <class T>
void replace(std::unique_ptr<T>& held, T* object)
{
    if (held.get() != object)
        held.reset(object);
}

} // namespace

void Discovery::setAuthority(Authority* authority)
{
    replace(m_authority, authority);
}

void Discovery::setSubject(Subject* subject)
{
    replace(m_subject, subject);
}

void Discovery::setAttributes(CollectionAttributes* attributes)
{
    replace(m_attributes, attributes);
}

void Discovery::setCollectionData(CollectionData* data)
{
    replace(m_collectionData, data);
}

DiscoveryIterator::DiscoveryIterator(AuthorityType type, std::string authority, std::string subject)
    : m_type(type), m_authority(std::move(authority)), m_subject(std::move(subject))
{
}

DiscoveryIterator::~DiscoveryIterator() = default;

namespace {

/// False for "" and "*...", which mean any name.
// Compat(star-means-any): peers rely on this: a name that begins with "*" matches every name.
bool narrows(const std::string& name)
{
    return !name.empty() && name.front() != '*';
}

} // namespace

void DiscoveryIterator::setAuthority(const std::string& name, AuthorityType type)
{
    DISC_TRACE("DiscoveryIterator::setAuthority");
    m_type = type;
    if (narrows(name))
        m_authority = Authority(name, type).getNameFileName().utf8();
}

void DiscoveryIterator::setAuthority(const Uri& uri, AuthorityType type)
{
    DISC_TRACE("DiscoveryIterator::setAuthority");
    m_type = type;
    m_authority = Authority(uri, type).getNameFileName().utf8();
}

void DiscoveryIterator::setAuthority(const UriAuthority& authority, AuthorityType type)
{
    DISC_TRACE("DiscoveryIterator::setAuthority");
    m_type = type;
    m_authority = Authority(authority, type).getNameFileName().utf8();
}

void DiscoveryIterator::setSubject(const std::string& name)
{
    DISC_TRACE("DiscoveryIterator::setSubject");
    if (narrows(name))
        m_subject = Subject(name).getSubjectFileName().utf8();
}

void DiscoveryIterator::setSubject(const Uri& uri)
{
    DISC_TRACE("DiscoveryIterator::setSubject");
    m_subject = Subject(uri).getSubjectFileName().utf8();
}

RecordLister::~RecordLister() = default;

RecordListing::RecordListing(DiscoveryIterator& iterator)
    : m_iterator(iterator), m_lister(dynamic_cast<RecordLister*>(&iterator))
{
}

std::optional<ListedRecord> RecordListing::next()
{
    if (m_lister)
        return m_lister->listNext();
    for (;;) {
        AutoDereference<Discovery> record(m_iterator.getNext());
        if (!record)
            return std::nullopt;
        const Authority* const authority = record->getAuthority();
        const Subject* const subject = record->getSubject();
        if (TLX_ASSERT(authority) && TLX_ASSERT(subject))
            return ListedRecord{subject->getSubject().utf8(), authority->getName().utf8(),
                                authority->getType(), std::move(record)};
    }
}

DiscoveryCreator::~DiscoveryCreator() = default;

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
