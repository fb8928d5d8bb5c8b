#include "ExplorerTimers.h"

#include <cstdlib>
#include <exception>

#include <ace/Reactor.h>

#include <tlx/Orb.h>
#include <tlx/Servant.h>

#include "DiscLog.h"
#include "ExplorerCall.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscoveryRepository";
constexpr const char* SERVICE = "DiscoveryService";

/// A client's name is registered with the service's and this host's, which lead back to it.
std::string localHost()
{
    TlxHostname host;
    host.setLocal();
    return host.text().utf8();
}

} // namespace

DiscoveryRepository::DiscoveryTimerBase::DiscoveryTimerBase(DiscoveryRepository& repository)
    : m_repository(repository)
{
    reference_counting_policy().value(Reference_Counting_Policy::ENABLED);
}

ACE_Event_Handler::Reference_Count DiscoveryRepository::DiscoveryTimerBase::add_reference()
{
    referenceObject();
    return 1;
}

ACE_Event_Handler::Reference_Count DiscoveryRepository::DiscoveryTimerBase::remove_reference()
{
    dereferenceObject();
    return 1;
}

bool DiscoveryRepository::DiscoveryTimerBase::schedule(unsigned seconds)
{
    const std::lock_guard guard(m_mutex);
    return scheduleLocked(seconds);
}

void DiscoveryRepository::DiscoveryTimerBase::scheduleAgain(unsigned seconds)
{
    const std::lock_guard guard(m_mutex);
    if (m_id == -1)
        scheduleLocked(seconds);
}

bool DiscoveryRepository::DiscoveryTimerBase::scheduleLocked(unsigned seconds)
{
    const LogScope scope("DiscoveryTimerBase::schedule");
    ACE_Reactor* reactor = getAceReactor();
    if (m_cancelled || !reactor || m_repository.isShuttingDown())
        return false;
    if (m_id != -1)
        reactor->cancel_timer(m_id, nullptr, 1);
    ++m_generation; // a run that the reactor is about to begin for the old schedule is none
    m_id = reactor->schedule_timer(this, reinterpret_cast<const void*>(m_generation),
                                   ACE_Time_Value(static_cast<time_t>(seconds)));
    m_due = TlxObjTime::now() + TlxObjTime(seconds, 0);
    if (m_id == -1)
        DISC_LOG(1, "Unable to schedule a timer");
    return m_id != -1;
}

void DiscoveryRepository::DiscoveryTimerBase::cancel()
{
    const std::lock_guard guard(m_mutex);
    m_cancelled = true;
    ACE_Reactor* reactor = getAceReactor();
    if (m_id != -1 && reactor)
        reactor->cancel_timer(m_id, nullptr, 1); // without its close hook
    m_id = -1;
    ++m_generation;
}

TlxObjTime DiscoveryRepository::DiscoveryTimerBase::due() const
{
    const std::lock_guard guard(m_mutex);
    return m_id == -1 ? TlxObjTime() : m_due;
}

int DiscoveryRepository::DiscoveryTimerBase::handle_timeout(const ACE_Time_Value&,
                                                            const void* generation)
{
    const LogScope scope("DiscoveryTimerBase::handle_timeout");
    {
        const std::lock_guard guard(m_mutex);
        if (reinterpret_cast<std::uintptr_t>(generation) != m_generation)
            return 0;
        m_id = -1;
    }
    try {
        run();
    } catch (const std::exception& e) { // the reactor's thread serves every timer
        DISC_LOG(1, "A timer failed: " << e.what());
        scheduleAgain(REGISTER_RETRY_SECONDS);
    }
    return 0;
}

void DiscoveryRepository::ExplorerPushTimer::run()
{
    DISC_TRACE("DiscoveryRepository::ExplorerPushTimer");
    for (const AutoDereference<ExplorerWrapper>& wrapper : m_explorers) {
        if (m_repository.isShuttingDown())
            return;
        push(*wrapper);
    }
    scheduleAgain(PUSH_INTERVAL_SECONDS);
}

void DiscoveryRepository::ExplorerPushTimer::push(const ExplorerWrapper& wrapper) const
{
    auto* exp = dynamic_cast<ExplorerPush*>(wrapper.getExplorer());
    if (!TLX_ASSERT_AS(exp, "NULL != exp"))
        return;
    const CollectionAttributes attributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, TlxObjTime::now(),
                                          TlxObjTime(PUSH_INTERVAL_SECONDS, 0),
                                          wrapper.getPriority());
    DiscoveryResult result{DS_SUCCESS, 0};
    bool answer = false;
    const bool returned = callExplorer(wrapper, "pushCollection", [&] {
        answer = exp->pushCollection(*wrapper.getAuthority(), *wrapper.getSubject(), attributes,
                                     wrapper.getExplorerContext(), &m_repository, result);
    });
    wrapper.setLastOutcome(!returned ? "it failed; the log tells why"
                           : answer && isSuccess(result)
                               ? "pushed"
                               : "it pushed nothing (status " +
                                     std::to_string(static_cast<int>(result.discStatus)) + ")");
}

void DiscoveryRepository::ExplorerRegisterTimer::run()
{
    DISC_TRACE("DiscoveryRepository::ExplorerRegisterTimer::handle_timeout");
    TlxHostname master;
    m_repository.getMasterServerName(master);
    if (master.empty()) {
        DISC_LOG(1, "Cannot find master server name, cannot register explorers");
        return scheduleAgain(REGISTER_RETRY_SECONDS);
    }
    ExplorerSet explorers;
    {
        const LockableGuard lockableGuard(m_repository);
        if (TLX_ASSERT(lockableGuard.locked()))
            explorers = *m_pullExplorers;
    }
    DISC_LOG(4, "Registering " << explorers.size() << " explorers with master server");
    try {
        const Remote::DiscoveryService_var service =
            m_repository.connectToRemoteDiscoveryService(master, SERVICE);
        if (CORBA::is_nil(service)) {
            if (m_repository.isShuttingDown())
                return;
            DISC_LOG(1, "Failed to connect to discovery service on the master, retrying later");
            return scheduleAgain(REGISTER_RETRY_SECONDS);
        }
        if (!registerAll(explorers, service))
            return;
    } catch (const CORBA::Exception& e) {
        DISC_LOG(1, "Caught CORBA exception registering explorers with master, retrying later");
        DISC_LOG(1, describeException(e));
        return scheduleAgain(REGISTER_RETRY_SECONDS);
    }
    DISC_LOG(4, "Successfully registered explorers with master");
    m_repository.startPushTimer();
}

bool DiscoveryRepository::ExplorerRegisterTimer::registerAll(const ExplorerSet& explorers,
                                                             Remote::DiscoveryService_ptr master)
{
    const std::string host = localHost();
    const std::string serviceName = m_framework->getOrb()->getServiceName();
    const LockableGuard lockableGuard(*this);
    if (!TLX_ASSERT(lockableGuard.locked()))
        return false;
    for (const AutoDereference<ExplorerWrapper>& wrapper : explorers) {
        if (m_repository.isShuttingDown())
            return false;
        master->registerExplorer(
            serviceName.c_str(), host.c_str(), wrapper->getSubject()->getSubject().c_str(),
            wrapper->getAuthority()->getName().c_str(), wrapper->getAuthority()->getType(),
            static_cast<CORBA::Short>(wrapper->getPriority()));
    }
    return true;
}

/// The host's delays are the same at every start: the seed is the number its name begins with.
unsigned DiscoveryRepository::seededDelay(unsigned range) const
{
    std::srand(static_cast<unsigned>(std::strtol(localHost().c_str(), nullptr, 10)));
    return static_cast<unsigned>(std::rand()) % range;
}

void DiscoveryRepository::startPushTimer()
{
    DISC_TRACE("DiscoveryRepository::startPushTimer");
    AutoDereference<ExplorerPushTimer> before; // goes when the lock is free, its explorers with it
    const LockableGuard lockableGuard(*this);
    if (!TLX_ASSERT(lockableGuard.locked()) || m_shuttingDown)
        return;
    std::swap(before, m_pushTimer);
    m_pushTimer.reset(new ExplorerPushTimer(*this, m_pushExplorers));
    m_pushTimer->schedule(0);
}

void DiscoveryRepository::startRegisterTimer()
{
    DISC_TRACE("DiscoveryRepository::startRegisterTimer");
    const LockableGuard lockableGuard(*this);
    if (!TLX_ASSERT(lockableGuard.locked()) || m_shuttingDown)
        return;
    const unsigned delay = seededDelay(FIRST_REGISTER_RANGE_SECONDS);
    m_registerTimer.reset(new ExplorerRegisterTimer(*this, &m_pullExplorers, m_discoveryFramework));
    m_registerTimer->schedule(delay);
}

void DiscoveryRepository::triggerPushTimer()
{
    DISC_TRACE("DiscoveryRepository::triggerPushTimer");
    const LockableGuard lockableGuard(*this);
    if (!TLX_ASSERT(lockableGuard.locked()) || !m_pushTimer)
        return;
    const unsigned delay = seededDelay(TRIGGERED_PUSH_RANGE_SECONDS);
    DISC_LOG(4, "triggering push in " << delay << " seconds");
    m_pushTimer->schedule(delay);
}

TlxObjTime DiscoveryRepository::getNextPush() const
{
    const LockableGuard lockableGuard(*this);
    return m_pushTimer ? m_pushTimer->due() : TlxObjTime();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
