#include "OnlyRecord.h"

#include "DiscLog.h"
#include "DiscMem.h"
#include "DiscoveryRepository.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

namespace {

constexpr const char* LOG_SOURCE = "DiscoveryService_i";

// Compat(query-undefined): peers send back the records of a page, and pages carry no query type. So
// DQ_UNDEFINED must mean discovery data.
DiscoveryQuery effectiveQuery(DiscoveryQuery query)
{
    return query == DQ_UNDEFINED ? DQ_DISCOVERY_DATA : query;
}

AutoDereference<Tlx::DiscoverySvc::DiscoveryIterator> findMatches(DiscoveryQuery query,
                                                                  AuthorityType type,
                                                                  const TlxString& subject,
                                                                  const TlxString& authority)
{
    DiscoveryRepository* repository = getDiscoveryRepository();
    return AutoDereference<Tlx::DiscoverySvc::DiscoveryIterator>(
        repository->isGenericDSOnMaster()
            ? repository->queryDiscoveries(query, subject.utf8(), authority.utf8(), type)
            : repository->findPullExplorer(query, *repository->pullExplorers(), subject.utf8(),
                                           authority.utf8()));
}

} // namespace

tl::expected<AutoDereference<Tlx::DiscoverySvc::Discovery>, DiscoveryStatus>
findOnlyRecord(const Remote::Discovery& wanted)
{
    DISC_TRACE("DiscoveryService_i::getCollectionData");
    using Tlx::DiscoverySvc::Discovery;
    const TlxString subject(wanted.subject.in());
    const TlxString authority(wanted.authority.in());
    // Compat(log-fount): log readers know "Fount no discoveries" and "Fount too many".
    const AutoDereference<Tlx::DiscoverySvc::DiscoveryIterator> matches =
        findMatches(effectiveQuery(wanted.queryType), wanted.authType, subject, authority);
    if (!matches) {
        DISC_WARN("Null iterator returned. Fount no discoveries for subject "
                  << subject << " & authority " << authority);
        return tl::unexpected(DS_NONE_FOUND);
    }
    AutoDereference<Discovery> first(matches->getNext());
    if (!first) {
        DISC_NOTICE("Fount no discoveries for subject " << subject << " & authority " << authority);
        return tl::unexpected(DS_NONE_FOUND);
    }
    const AutoDereference<Discovery> second(matches->getNext());
    if (!second)
        return first;
    DISC_NOTICE("Fount too many matching discoveries for subject " << subject << " & authority "
                                                                   << authority);
    if (dynamic_cast<const MemDiscovery*>(second.get()))
        DISC_NOTICE("Of several pull explorers only the one that sorts last can be read by "
                    "name: each that sorts behind a match counts as one, too");
    return tl::unexpected(DS_LOGIC_ERROR);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
