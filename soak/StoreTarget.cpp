#include "StoreTarget.h"

#include <DiscDB.h>

namespace Veltrane::Quillmark::Soak {

namespace {

namespace Disc = Tlx::DiscoverySvc;

constexpr std::size_t CHUNK = 1u << 20;

Tlx::AutoDereference<Disc::DiscoveryIterator>
find(const std::string& authority, const std::string& subject, Disc::AuthorityType type)
{
    Tlx::AutoDereference<Disc::DiscoveryIterator> iterator(
        Disc::getDiscoveryDBDatabase()->getIterator(Disc::DQ_DISCOVERY_DATA));
    iterator->setAuthority(authority, type);
    iterator->setSubject(subject);
    return iterator;
}

class StoreTarget : public Target
{
  public:
    void connect() override {}

    PutOutcome put(const Name& name, const Attributes& attributes,
                   const std::string& payload) override
    {
        const Tlx::AutoDereference<Disc::Discovery> record(
            Disc::getDiscoveryDBDatabase()->newDiscovery(Disc::DQ_DISCOVERY_DATA));
        record->setSubject(new Disc::Subject(name.subject));
        record->setAuthority(new Disc::Authority(name.authority, Disc::AT_QMKCLIENT));
        record->setAttributes(new Disc::CollectionAttributes(
            Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY, Tlx::TlxObjTime::now(),
            Tlx::TlxObjTime(attributes.timeToLive.count()), attributes.priority));
        if (!isStored(record->open(Disc::OM_UPDATE, "")))
            return PutOutcome::OUTRANKED;
        for (std::size_t done = 0; done < payload.size(); done += CHUNK)
            if (!record->getCollectionData()->writeCollection(
                    std::min(CHUNK, payload.size() - done), payload.data() + done))
                throw Lost("a payload is refused");
        return isStored(record->persist()) ? PutOutcome::STORED : PutOutcome::OUTRANKED;
    }

    ReadOutcome read(const Name& name, std::string& payload) override
    {
        const auto iterator = find(name.authority, name.subject, Disc::AT_QMKCLIENT);
        Disc::Discovery* next = iterator->getNext();
        if (!next)
            return ReadOutcome::ABSENT;
        const Tlx::AutoDereference<Disc::Discovery> record(next);
        if (!isSuccess(record->open(Disc::OM_READ, "")))
            return ReadOutcome::UNREADABLE;
        payload.clear();
        for (;;) {
            const std::size_t before = payload.size();
            payload.resize(before + CHUNK);
            const std::size_t size =
                record->getCollectionData()->readCollection(CHUNK, payload.data() + before);
            if (size > CHUNK)
                throw Lost("a payload cannot be read");
            payload.resize(before + size);
            if (size == 0)
                return ReadOutcome::FOUND;
        }
    }

    std::vector<std::string> list(const std::string& authority, const std::string& subject) override
    {
        const auto iterator = find(authority, subject, Disc::AT_ANYANDALL);
        std::vector<std::string> found;
        while (Disc::Discovery* next = iterator->getNext()) {
            const Tlx::AutoDereference<Disc::Discovery> record(next);
            found.push_back(Name{record->getAuthority()->getName().utf8(),
                                 record->getSubject()->getSubject().utf8()}
                                .text());
        }
        return found;
    }

    // A record that stays locked would hold up the other processes.
    bool mayAbandon() const override { return false; }
    void abandonWriter(const Name&, const Attributes&, const std::string&) override {}
    bool abandonData(const Name&) override { return false; }
    void abandonList(const std::string&) override {}

  private:
    static bool isStored(const Disc::DiscoveryResult& result)
    {
        if (result.discStatus == Disc::DS_DATA_EXISTS)
            return false;
        if (!isSuccess(result))
            throw Lost("a put is answered with status " + std::to_string(result.discStatus));
        return true;
    }
};

} // namespace

std::unique_ptr<Target> makeStoreTarget()
{
    return std::make_unique<StoreTarget>();
}

} // namespace Veltrane::Quillmark::Soak
