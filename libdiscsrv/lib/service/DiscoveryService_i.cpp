#include "DiscoveryService_i.h"

#include <vector>

#include <tlx/Orb.h>
#include <tlx/OrbService.h>
#include <tlx/Servant.h>

#include "AccessRules.h"
#include "CollectionDataIterator_i.h"
#include "CombiningIterator.h"
#include "DiscLog.h"
#include "DiscoveryIterator_i.h"
#include "DiscoveryRepository.h"
#include "NameCheck.h"
#include "OnlyRecord.h"
#include "OpenObjects.h"
#include "RefreshTask.h"
#include "RemoteExplorerPull.h"
#include "RemoteWriter_i.h"
#include "ServiceCounters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

namespace {

constexpr const char* LOG_SOURCE = "DiscoveryService_i";

/// Registers, activates and watches an iterator. Returns its reference, which the caller releases.
/// @throws CORBA::SystemException on failure. Then nothing stays behind.
template <class Interface, class Servant>
typename Interface::_ptr_type activateIterator(OpenKind kind, Servant& servant)
{
    Orb* const orb = getDiscoveryRepository()->getOrb();
    if (!orb)
        throw CORBA::OBJ_ADAPTER();
    OpenObjects::Admission admission = openObjects().admit(kind, servant);
    if (!admission.isAdmitted())
        throw CORBA::NO_RESOURCES(0, CORBA::COMPLETED_NO);
    const CORBA::Object_var object = admission.activate();
    try {
        add2Evictor(servant.m_objectId.in(), openObjects().poa(), *orb, ITERATOR_TIMEOUT_SECONDS);
    } catch (const CORBA::UserException&) {
        // The POA threw it while the service stops. The wire contract has no user exceptions.
        throw CORBA::OBJ_ADAPTER();
    }
    typename Interface::_var_type reference = Interface::_narrow(object);
    if (CORBA::is_nil(reference))
        throw CORBA::INV_OBJREF();
    admission.keep();
    return reference._retn();
}

/// An iterator without records. The caller owns it.
Tlx::DiscoverySvc::DiscoveryIterator* nothing(AuthorityType type)
{
    std::vector<AutoDereference<Tlx::DiscoverySvc::DiscoveryIterator>> none;
    return new CombiningIterator(type, "", "", none);
}

WireNames namesOf(const Remote::Discovery& discovery)
{
    return {discovery.subject.in(), discovery.authority.in(), discovery.sourceHost.in(),
            discovery.sourceServiceName.in()};
}

/// Whether a record may have these names.
/// @throws CORBA::NO_PERMISSION if the peer may not put it.
bool isPutPermitted(const Remote::Discovery& discovery)
{
    const WireNames names = namesOf(discovery);
    if (!areNamesBounded(names))
        return false;
    {
        const LogScope scope("RemoteWriter_i::open"); // the name that log readers know
        if (!areNamesComplete({names.subject, names.authority}, "A record"))
            return false;
    }
    AccessRules& rules = AccessRules::instance();
    rules.requireOwner(AccessRole::WRITE, "putCollection", {names.authority});
    // Such a record is a stored registration: the next start of a master pulls from the host in its
    // payload, which nobody compares with the peer.
    if (discovery.authType == AT_REMOTEPULL)
        rules.requireRole(AccessRole::REGISTER, "putCollection of a registration");
    rules.requirePriority("putCollection",
                          static_cast<std::uint32_t>(discovery.attributes.priority));
    return true;
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
        const AutoDereference<Tlx::DiscoverySvc::DiscoveryIterator> iterator(
            areNamesBounded({subject, authority})
                ? getDiscoveryRepository()->queryDiscoveries(queryType, TlxString(subject).utf8(),
                                                             TlxString(authority).utf8(), authType)
                : nothing(authType));
        if (!iterator) {
            DISC_WARN("Failed to create discovery iterator");
            // Compat(query-failed): peers expect a reference even if the query failed. Log
            // readers count the failed assertion.
            TLX_SHOULD_NOT_GET_HERE();
        }
        try {
            PortableServer::Servant_var<DiscoveryIterator_i> servant(
                new DiscoveryIterator_i(iterator.get()));
            return activateIterator<DiscoveryIterator>(OpenKind::DiscoveryIterator, *servant.in());
        } catch (const CORBA::Exception& e) {
            DISC_WARN("Caught CORBA exception creating object reference to discovery iterator");
            DISC_WARN(describeException(e));
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
        if (!areNamesBounded(namesOf(discovery)))
            return DS_NONE_FOUND;
        if (DiscoveryRepository::stringContainsWildcard(TlxString(discovery.subject.in()).utf8()) ||
            DiscoveryRepository::stringContainsWildcard(TlxString(discovery.authority.in()).utf8()))
            return DS_LOGIC_ERROR;

        const auto found = findOnlyRecord(discovery);
        if (!found)
            return found.error();
        try {
            PortableServer::Servant_var<CollectionDataIterator_i> servant(
                new CollectionDataIterator_i(*found));
            if (!servant->open(filter)) {
                DISC_WARN("Error encountered trying to open collection iterator");
                return DS_OPEN_FAILED;
            }
            iterator = activateIterator<CollectionDataIterator>(OpenKind::CollectionIterator,
                                                                *servant.in());
            return DS_SUCCESS;
        } catch (const CORBA::Exception& e) {
            DISC_WARN(
                "Caught CORBA exception creating object reference to collection data iterator");
            DISC_WARN(describeException(e));
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
        DiscoveryResult result{DS_OPEN_FAILED, 0};
        if (!isPutPermitted(discovery))
            return result;
        PortableServer::Servant_var<RemoteWriter_i> servant(newRemoteWriter(discovery));
        try {
            OpenObjects::Admission admission = openObjects().admit(OpenKind::Writer, *servant.in());
            if (!admission.isAdmitted())
                return result;
            result = servant->open();
            if (!isSuccess(result))
                return result;
            const CORBA::Object_var reference = admission.activate();
            RemoteWriter_var narrowed = RemoteWriter::_narrow(reference);
            if (CORBA::is_nil(narrowed))
                throw CORBA::INV_OBJREF();
            admission.keep();
            writer = narrowed._retn();
            return result;
        } catch (const CORBA::Exception& e) {
            DISC_WARN("Caught CORBA exception creating object reference to remote writer");
            DISC_WARN(describeException(e));
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
        const WireNames names{subject, authority, sourceHost, sourceServiceName};
        if (!areNamesBounded(names) || !areNamesComplete(names, "An explorer"))
            return;
        // Compat(register-negative): peers may register with a negative priority. It becomes a very
        // large one.
        const auto unsignedPriority = static_cast<unsigned int>(static_cast<int>(priority));
        AccessRules& rules = AccessRules::instance();
        rules.requireOwner(AccessRole::REGISTER, "registerExplorer", {sourceHost, authority});
        rules.requirePriority("registerExplorer", unsignedPriority);
        const TlxString serviceName(sourceServiceName);
        const TlxString host(sourceHost);
        const TlxString subjectName(subject);
        const TlxString authorityName(authority);
        DISC_LOG(4,
                 "Registered explorer: " << subjectName << " " << authorityName << " " << priority);
        const AutoDereference<RemoteExplorerPull> explorer(
            new RemoteExplorerPull(serviceName, host, subjectName, authorityName, authType));
        const Subject of(subjectName.utf8());
        const Authority by(authorityName.utf8(), authType);
        getDiscoveryRepository()->registerExplorer(&of, explorer.get(), unsignedPriority, &by,
                                                   false);
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
        // Compat(terminate-true): peers get true at once, and the service stops after the answer.
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
