#include "StampedRecord.h"

#include <cstdlib>
#include <optional>

namespace QmTest {

namespace {

constexpr long SECONDS_APART = 1'000'000; ///< between two puts; only one digit differs

std::size_t payloadBytes(long number)
{
    return number < 10 ? 1100 : 20000; // more than two sectors; more than a reader's buffer
}

/// A text of the number, again and again.
std::string repeated(long number, std::size_t bytes)
{
    const std::string unit = std::to_string(number) + (number < 10 ? "" : ".");
    std::string text;
    while (text.size() < bytes)
        text += unit;
    text.resize(bytes);
    return text;
}

/// The number that is again and again in a text, nothing for another text.
std::optional<long> stampOf(const std::string& text)
{
    const bool isLong = text.find('.') != text.npos;
    const long number = std::atol(text.substr(0, isLong ? text.find('.') : 1).c_str());
    if (number < 1 || text != repeated(number, text.size()))
        return std::nullopt;
    return number;
}

std::string metadataStamp(const Disc::Discovery& record)
{
    const Disc::CollectionAttributes* const attributes = record.getAttributes();
    if (!attributes)
        return "mixed";
    const auto stamp = stampOf(attributes->getSignature().utf8());
    if (!stamp || attributes->getDiscoveryTime().seconds() != *stamp * SECONDS_APART)
        return "mixed";
    return std::to_string(*stamp);
}

std::string payloadStamp(Disc::Discovery& record)
{
    if (!isSuccess(record.open(Disc::OM_READ, "")))
        return "missing";
    std::string payload;
    char buffer[3000];
    std::size_t count = 0;
    while ((count = record.getCollectionData()->readCollection(sizeof buffer, buffer)) > 0 &&
           count <= sizeof buffer)
        payload.append(buffer, count);
    const auto stamp = stampOf(payload);
    return stamp && payload.size() == payloadBytes(*stamp) ? std::to_string(*stamp) : "spoilt";
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
    attributes->setSignature(repeated(stamped.number, stamped.signature));
    m_record->setAttributes(attributes.release());
}

Disc::DiscoveryStatus StampedPut::write()
{
    const Disc::DiscoveryStatus opened = m_record->open(Disc::OM_UPDATE, "").discStatus;
    if (opened != Disc::DS_SUCCESS)
        return opened;
    const std::string payload = repeated(m_stamped.number, payloadBytes(m_stamped.number));
    const std::size_t half = payload.size() / 2;
    for (const std::size_t from : {std::size_t{0}, half})
        if (!m_record->getCollectionData()->writeCollection(half, payload.data() + from))
            return Disc::DS_OPEN_FAILED;
    return Disc::DS_SUCCESS;
}

Disc::DiscoveryStatus putStamped(const Stamped& stamped)
{
    StampedPut put(stamped);
    const Disc::DiscoveryStatus written = put.write();
    return written == Disc::DS_SUCCESS ? put.persist() : written;
}

std::string stampsOf(const std::string& subject)
{
    const std::string file = "1 srv1 " + subject + ".xml";
    const Tlx::AutoDereference<Disc::Discovery> record(
        Disc::getDiscoveryDBDatabase()->getDiscovery(file.c_str()));
    return record ? metadataStamp(*record) + "/" + payloadStamp(*record) : "none";
}

std::string wholeState(long number)
{
    return std::to_string(number) + "/" + std::to_string(number);
}

bool isWholeState(const std::string& state)
{
    return state == wholeState(std::atol(state.c_str()));
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
