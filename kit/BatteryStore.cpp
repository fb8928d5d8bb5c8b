#include <DiscDB.h>

#include "Battery.h"

namespace Veltrane::Quillmark::Kit {

using namespace Tlx::DiscoverySvc;

Stored findStored(const Authority& authority, const Subject& subject)
{
    Stored stored;
    const Tlx::AutoDereference<DiscoveryIterator> iterator(
        getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA));
    iterator->setAuthority(authority.getName().utf8(), authority.getType());
    iterator->setSubject(subject.getSubject().utf8());
    while (Discovery* next = iterator->getNext()) {
        const Tlx::AutoDereference<Discovery> record(next);
        ++stored.records;
        stored.priority = record->getAttributes() ? record->getAttributes()->getPriority() : 0;
        stored.payload.clear();
        if (!isSuccess(record->open(OM_READ, "")))
            continue;
        char buffer[4096];
        std::size_t count = 0;
        while ((count = record->getCollectionData()->readCollection(sizeof buffer, buffer)) > 0 &&
               count <= sizeof buffer)
            stored.payload.append(buffer, count);
    }
    return stored;
}

bool storeHigher(DiscoveryRepository& repository, const Authority& authority,
                 const Subject& subject, unsigned priority)
{
    Tlx::AutoDereference<Discovery> record;
    repository.newDiscovery(record, DQ_DISCOVERY_DATA, subject, authority,
                            CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                 Tlx::TlxObjTime::now(), Tlx::TlxObjTime(),
                                                 priority));
    return record && isSuccess(record->open(OM_UPDATE, "")) && isSuccess(record->persist());
}

} // namespace Veltrane::Quillmark::Kit
