#include "StampedRecord.h"

#include <optional>

namespace QmTest {

namespace {

constexpr long SECONDS_APART = 1'000'000;   ///< between two puts; only one digit differs
constexpr std::size_t PAYLOAD_BYTES = 1100; ///< more than two sectors

char digit(long number)
{
    return static_cast<char>('0' + number);
}

/// The number that a text consists of, nothing for another text.
std::optional<char> stampOf(const std::string& text)
{
    if (text.empty() || text[0] < '1' || text[0] > '9' ||
        text.find_first_not_of(text[0]) != text.npos)
        return std::nullopt;
    return text[0];
}

std::string metadataStamp(const Disc::Discovery& record)
{
    const Disc::CollectionAttributes* const attributes = record.getAttributes();
    if (!attributes)
        return "mixed";
    const auto stamp = stampOf(attributes->getSignature().utf8());
    if (!stamp || attributes->getDiscoveryTime().seconds() != (*stamp - '0') * SECONDS_APART)
        return "mixed";
    return std::string(1, *stamp);
}

std::string payloadStamp(Disc::Discovery& record)
{
    if (!isSuccess(record.open(Disc::OM_READ, "")))
        return "missing";
    std::string payload(PAYLOAD_BYTES + 1, '\0');
    const std::size_t size =
        record.getCollectionData()->readCollection(payload.size(), payload.data());
    const auto stamp = size == PAYLOAD_BYTES ? stampOf(payload.substr(0, size)) : std::nullopt;
    return stamp ? std::string(1, *stamp) : "spoilt";
}

} // namespace

void setTimeOf(long number)
{
    Tlx::TlxObjTime::setClock([=] { return Tlx::TlxObjTime(number * SECONDS_APART); });
}

void setLaterTime()
{
    setTimeOf(100);
}

StampedPut::StampedPut(const Stamped& stamped)
    : m_stamped(stamped),
      m_record(Disc::getDiscoveryDBDatabase()->newDiscovery(Disc::DQ_DISCOVERY_DATA))
{
    m_record->setSubject(new Disc::Subject(stamped.subject));
    m_record->setAuthority(new Disc::Authority("srv1", Disc::AT_QMKSERVER));
    auto attributes = std::make_unique<Disc::CollectionAttributes>(
        Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY,
        Tlx::TlxObjTime(stamped.number * SECONDS_APART), Tlx::TlxObjTime(stamped.timeToLive),
        stamped.priority);
    attributes->setSignature(std::string(stamped.signature, digit(stamped.number)));
    m_record->setAttributes(attributes.release());
}

Disc::DiscoveryStatus StampedPut::write()
{
    const Disc::DiscoveryStatus opened = m_record->open(Disc::OM_UPDATE, "").discStatus;
    if (opened != Disc::DS_SUCCESS)
        return opened;
    const std::string half(PAYLOAD_BYTES / 2, digit(m_stamped.number));
    for (int i = 0; i < 2; ++i)
        if (!m_record->getCollectionData()->writeCollection(half.size(), half.data()))
            return Disc::DS_OPEN_FAILED;
    return Disc::DS_SUCCESS;
}

std::string stampsOf(const std::string& subject)
{
    const std::string file = "1 srv1 " + subject + ".xml";
    const Tlx::AutoDereference<Disc::Discovery> record(
        Disc::getDiscoveryDBDatabase()->getDiscovery(file.c_str()));
    return record ? metadataStamp(*record) + "/" + payloadStamp(*record) : "none";
}

std::set<std::string> listedSubjects()
{
    std::set<std::string> byRecord;
    const Tlx::AutoDereference<Disc::DiscoveryIterator> records(
        Disc::getDiscoveryDBDatabase()->getIterator(Disc::DQ_DISCOVERY_DATA));
    while (Disc::Discovery* next = records->getNext())
        byRecord.insert(
            Tlx::AutoDereference<Disc::Discovery>(next)->getSubject()->getSubject().utf8());
    std::set<std::string> byPage;
    const Tlx::AutoDereference<Disc::DiscoveryIterator> pages(
        Disc::getDiscoveryDBDatabase()->getIterator(Disc::DQ_DISCOVERY_DATA));
    auto* const lister = dynamic_cast<Disc::RecordLister*>(pages.get());
    while (const auto next = lister->listNext())
        byPage.insert(next->subject);
    if (byRecord != byPage)
        byRecord.insert("differs");
    return byRecord;
}

} // namespace QmTest
