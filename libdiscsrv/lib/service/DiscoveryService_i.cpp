#include "DiscoveryService_i.h"

#include <tlx/Orb.h>
#include <tlx/OrbService.h>
#include <tlx/Servant.h>

#include "CollectionDataIterator_i.h"
#include "DiscLog.h"
#include "DiscMem.h"
#include "DiscoveryIterator_i.h"
#include "DiscoveryRepository.h"
#include "RefreshTask.h"
#include "RemoteExplorerPull.h"
#include "RemoteWriter_i.h"
#include "ServiceCounters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

namespace {

constexpr const char* LOG_SOURCE = "DiscoveryService_i";

/// Takes an object out of its POA, whatever the POA says to that.
void deactivateQuietly(PortableServer::POA_ptr poa, const PortableServer::ObjectId& id)
{
    try {
        poa->deactivate_object(id);
    } catch (const CORBA::Exception&) {
        // It is gone already, or the POA is.
    }
}

/// Activates an iterator servant and has the evictor watch it; its reference, for the caller to
/// release. Nothing stays activated when that fails; it fails with a system exception.
template <class Servant>
auto activateEvictable(Servant& servant)
{
    DiscoveryRepository* repository = getDiscoveryRepository();
    const PortableServer::POA_ptr poa = repository->getPOA();
    Orb* orb = repository->getOrb();
    if (CORBA::is_nil(poa) || !orb)
        throw CORBA::OBJ_ADAPTER();
    servant.m_objectId = poa->activate_object(&servant);
    try {
        const auto reference = servant._this();
        try {
            add2Evictor(servant.m_objectId.in(), poa, *orb, ITERATOR_TIMEOUT_SECONDS);
        } catch (...) {
            CORBA::release(reference);
            throw;
        }
        return reference;
    } catch (const CORBA::UserException&) {
        // Of the POA or the evictor, while the service stops; the contract knows none.
        deactivateQuietly(poa, servant.m_objectId.in());
        throw CORBA::OBJ_ADAPTER();
    } catch (...) {
        deactivateQuietly(poa, servant.m_objectId.in());
        throw;
    }
}

/// What a page does not tell, and so a caller who hands a record back cannot, is the query type.
DiscoveryQuery effectiveQuery(DiscoveryQuery query)
{
    return query == DQ_UNDEFINED ? DQ_DISCOVERY_DATA : query;
}

/// The one record that matches; null, and why, when there is none or more than one.
AutoDereference<Tlx::DiscoverySvc::Discovery> findOne(DiscoveryQuery query, AuthorityType type,
                                                      const TlxString& subject,
                                                      const TlxString& authority,
                                                      DiscoveryStatus& status)
{
    DISC_TRACE("DiscoveryService_i::getCollectionData");
    using Tlx::DiscoverySvc::Discovery;
    DiscoveryRepository* repository = getDiscoveryRepository();
    const AutoDereference<Tlx::DiscoverySvc::DiscoveryIterator> matches(
        repository->isGenericDSOnMaster()
            ? repository->queryDiscoveries(query, subject.utf8(), authority.utf8(), type)
            : repository->findPullExplorer(query, *repository->pullExplorers(), subject.utf8(),
                                           authority.utf8()));
    status = DS_NONE_FOUND;
    if (!matches) {
        DISC_LOG(1, "Null iterator returned. Fount no discoveries for subject "
                        << subject << " & authority " << authority);
        return {};
    }
    AutoDereference<Discovery> first(matches->getNext());
    if (!first) {
        DISC_LOG(1, "Fount no discoveries for subject " << subject << " & authority " << authority);
        return {};
    }
    const AutoDereference<Discovery> second(matches->getNext());
    if (second) {
        DISC_LOG(1, "Fount too many matching discoveries for subject " << subject << " & authority "
                                                                       << authority);
        if (dynamic_cast<const MemDiscovery*>(second.get()))
            DISC_LOG(1, "Of several pull explorers only the one that sorts last can be read by "
                        "name: each that sorts behind a match counts as one, too");
        status = DS_LOGIC_ERROR;
        return {};
    }
    status = DS_SUCCESS;
    return first;
}

} // namespace

DiscoveryIterator_ptr DiscoveryService_i::queryDiscoveries(DiscoveryQuery queryType,
                                                           AuthorityType authType,
                                                           const char* authority,
                                                           const char* subject)
{
    return servantOperation("DiscoveryService_i::queryDiscoveries", [&] {
        DISC_TRACE("DiscoveryService_i::queryDiscoveries");
        countService(ServiceCounter::QUERIES);
        const TlxString subjectName(subject);
        const TlxString authorityName(authority);
        const AutoDereference<Tlx::DiscoverySvc::DiscoveryIterator> iterator(
            getDiscoveryRepository()->queryDiscoveries(queryType, subjectName.utf8(),
                                                       authorityName.utf8(), authType));
        if (!iterator) {
            DISC_LOG(1, "Failed to create discovery iterator");
            // The caller gets an iterator over nothing: it expects a reference.
            TLX_SHOULD_NOT_GET_HERE();
        }
        try {
            PortableServer::Servant_var<DiscoveryIterator_i> servant(
                new DiscoveryIterator_i(iterator.get()));
            return activateEvictable(*servant.in());
        } catch (const CORBA::Exception& e) {
            DISC_LOG(1, "Caught CORBA exception creating object reference to discovery iterator");
            DISC_LOG(1, describeException(e));
            throw;
        }
    });
}

DiscoveryStatus DiscoveryService_i::getCollectionData(const Remote::Discovery& discovery,
                                                      const char* filter,
                                                      CollectionDataIterator_out iterator)
{
    return servantOperation("DiscoveryService_i::getCollectionData", [&]() -> DiscoveryStatus {
        DISC_TRACE("DiscoveryService_i::getCollectionData");
        iterator = CollectionDataIterator::_nil();
        countService(ServiceCounter::READS);
        const TlxString subject(discovery.subject.in());
        const TlxString authority(discovery.authority.in());
        if (DiscoveryRepository::stringContainsWildcard(subject.utf8()) ||
            DiscoveryRepository::stringContainsWildcard(authority.utf8()))
            return DS_LOGIC_ERROR;

        DiscoveryStatus status = DS_NONE_FOUND;
        const AutoDereference<Tlx::DiscoverySvc::Discovery> found = findOne(
            effectiveQuery(discovery.queryType), discovery.authType, subject, authority, status);
        if (!found)
            return status;
        try {
            PortableServer::Servant_var<CollectionDataIterator_i> servant(
                new CollectionDataIterator_i(found));
            if (!servant->open(filter)) {
                DISC_LOG(1, "Error encountered trying to open collection iterator");
                return DS_OPEN_FAILED;
            }
            iterator = activateEvictable(*servant.in());
            return DS_SUCCESS;
        } catch (const CORBA::Exception& e) {
            DISC_LOG(
                1, "Caught CORBA exception creating object reference to collection data iterator");
            DISC_LOG(1, describeException(e));
            iterator = CollectionDataIterator::_nil();
            return DS_COM_ERROR;
        }
    });
}

DiscoveryResult DiscoveryService_i::putCollection(const Remote::Discovery& discovery,
                                                  RemoteWriter_out writer)
{
    return servantOperation("DiscoveryService_i::putCollection", [&]() -> DiscoveryResult {
        DISC_TRACE("DiscoveryService_i::putCollection");
        writer = RemoteWriter::_nil();
        countService(ServiceCounter::WRITES);
        PortableServer::Servant_var<RemoteWriter_i> servant(newRemoteWriter(discovery));
        DiscoveryResult result = servant->open();
        if (!isSuccess(result))
            return result;
        Orb* orb = getDiscoveryRepository()->getOrb();
        CORBA::Object_var reference;
        try {
            if (!orb)
                throw CORBA::OBJ_ADAPTER();
            reference = orb->activateServant(servant.in());
            servant->setObjectReference(CORBA::Object::_duplicate(reference));
            RemoteWriter_var narrowed = RemoteWriter::_narrow(reference);
            if (CORBA::is_nil(narrowed))
                throw CORBA::INV_OBJREF();
            writer = narrowed._retn();
            (void)servant._retn(); // close drops this reference
            return result;
        } catch (const CORBA::Exception& e) {
            DISC_LOG(1, "Caught CORBA exception creating object reference to remote writer");
            DISC_LOG(1, describeException(e));
            if (orb)
                orb->destroyObjectRef(reference, PortableServer::POA::_nil());
            writer = RemoteWriter::_nil();
            result.discStatus = DS_COM_ERROR;
            return result;
        }
    });
}

void DiscoveryService_i::registerExplorer(const char* sourceServiceName, const char* sourceHost,
                                          const char* subject, const char* authority,
                                          AuthorityType authType, CORBA::Short priority)
{
    servantOperation("DiscoveryService_i::registerExplorer", [&] {
        DISC_TRACE("DiscoveryService_i::registerExplorer");
        const TlxString serviceName(sourceServiceName);
        const TlxString host(sourceHost);
        const TlxString subjectName(subject);
        const TlxString authorityName(authority);
        if (subjectName.empty() || authorityName.empty()) {
            DISC_LOG(1, "An explorer needs a subject and an authority, got subject \""
                            << subjectName << "\" and authority \"" << authorityName
                            << "\" from host \"" << host << "\"");
            return;
        }
        DISC_LOG(4,
                 "Registered explorer: " << subjectName << " " << authorityName << " " << priority);
        const AutoDereference<RemoteExplorerPull> explorer(
            new RemoteExplorerPull(serviceName, host, subjectName, authorityName, authType));
        const Subject of(subjectName.utf8());
        const Authority by(authorityName.utf8(), authType);
        // A negative priority becomes a very large one, as it always has.
        getDiscoveryRepository()->registerExplorer(
            &of, explorer.get(), static_cast<unsigned int>(static_cast<int>(priority)), &by, false);
    });
}

CORBA::Boolean DiscoveryService_i::terminate()
{
    return servantOperation("DiscoveryService_i::terminate", []() -> CORBA::Boolean {
        DISC_TRACE("DiscoveryService_i::terminate");
        OrbService* service = OrbService::Instance();
        if (!service) {
            DISC_LOG(1, "Unable to retrieve the OrbService instance");
            return false;
        }
        service->stopByEvent(false);
        return true;
    });
}

void DiscoveryService_i::restartLocalPushTimer()
{
    servantOperation("DiscoveryService_i::restartLocalPushTimer", [] {
        DISC_TRACE("DiscoveryService_i::restartLocalPushTimer");
        getDiscoveryRepository()->triggerPushTimer();
    });
}

CORBA::Boolean DiscoveryService_i::restartAllPushTimers()
{
    return servantOperation("DiscoveryService_i::restartAllPushTimers", []() -> CORBA::Boolean {
        DISC_TRACE("DiscoveryService_i::restartAllPushTimers");
        return getDiscoveryRepository()->isGenericDSOnMaster() &&
               getDiscoveriesThreadMgr()->restartAllPushTimers();
    });
}

RemoteWriter_i* DiscoveryService_i::newRemoteWriter(const Remote::Discovery& discovery) const
{
    return new RemoteWriter_i(discovery);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
