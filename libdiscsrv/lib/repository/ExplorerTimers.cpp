#include "ExplorerTimers.h"

#include <exception>

#include <ace/Reactor.h>

#include <tlx/Orb.h>
#include <tlx/Servant.h>

#include "DiscLog.h"
#include "ExplorerCall.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscoveryRepository";

/// The master reaches a client's explorers by this host name and the service name.
std::string localHost()
{
    return TlxHostname::local().text().utf8();
}

} // namespace

DiscoveryTimerBase::DiscoveryTimerBase(PushScheduleOwner& owner) : m_owner(owner)
{
    reference_counting_policy().value(Reference_Counting_Policy::ENABLED);
}

ACE_Event_Handler::Reference_Count DiscoveryTimerBase::add_reference()
{
    referenceObject();
    return 1;
}

ACE_Event_Handler::Reference_Count DiscoveryTimerBase::remove_reference()
{
    dereferenceObject();
    return 1;
}

bool DiscoveryTimerBase::schedule(unsigned seconds)
{
    const std::lock_guard guard(m_mutex);
    return scheduleLocked(seconds);
}

void DiscoveryTimerBase::scheduleAgain(unsigned seconds)
{
    const std::lock_guard guard(m_mutex);
    if (m_id == -1)
        scheduleLocked(seconds);
}

bool DiscoveryTimerBase::scheduleLocked(unsigned seconds)
{
    const LogScope scope("DiscoveryTimerBase::schedule");
    ACE_Reactor* reactor = getAceReactor();
    if (m_cancelled || !reactor || m_owner.isShuttingDown())
        return false;
    if (m_id != -1)
        reactor->cancel_timer(m_id, nullptr, 1);
    ++m_generation; // a run of the old schedule that begins now does nothing
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the reactor passes it back and never reads it
    m_id = reactor->schedule_timer(this, reinterpret_cast<const void*>(m_generation),
                                   ACE_Time_Value(static_cast<time_t>(seconds)));
    m_due = TlxObjTime::now() + TlxObjTime(seconds, 0);
    if (m_id == -1)
        DISC_LOG(1, "Unable to schedule a timer");
    return m_id != -1;
}

void DiscoveryTimerBase::cancel()
{
    const std::lock_guard guard(m_mutex);
    m_cancelled = true;
    ACE_Reactor* reactor = getAceReactor();
    if (m_id != -1 && reactor)
        reactor->cancel_timer(m_id, nullptr, 1); // without its close hook
    m_id = -1;
    ++m_generation;
}

TlxObjTime DiscoveryTimerBase::due() const
{
    const std::lock_guard guard(m_mutex);
    return m_id == -1 ? TlxObjTime() : m_due;
}

int DiscoveryTimerBase::handle_timeout(const ACE_Time_Value&, const void* generation)
{
    const LogScope scope("DiscoveryTimerBase::handle_timeout");
    {
        const std::lock_guard guard(m_mutex);
        if (reinterpret_cast<std::uintptr_t>(generation) != m_generation)
            return 0;
        m_id = -1;
    }
    // An exception must not end the thread of all timers. A derived repository may throw a
    // std::exception or a CORBA::Exception.
    try {
        run();
        return 0;
    } catch (const std::exception& e) {
        DISC_LOG(1, "A timer failed: " << e.what());
    } catch (const CORBA::Exception& e) {
        DISC_LOG(1, "A timer failed: " << describeException(e));
    }
    scheduleAgain(RETRY_SECONDS);
    return 0;
}

void ExplorerPushTimer::run()
{
    // Compat(log-timers): log readers find the runs of the push timer under this name.
    DISC_TRACE("DiscoveryRepository::ExplorerPushTimer");
    for (const AutoDereference<ExplorerWrapper>& wrapper : *m_explorers) {
        if (m_owner.isShuttingDown())
            return;
        push(*wrapper);
    }
    scheduleAgain(PUSH_INTERVAL_SECONDS);
}

void ExplorerPushTimer::push(const ExplorerWrapper& wrapper) const
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
                                     wrapper.getExplorerContext(), m_owner.getFactory(), result);
    });
    // Compat(push-result-ignored): plug-ins may return any result. It is shown to people and
    // changes nothing.
    wrapper.setLastOutcome(!returned ? "it failed; see the log"
                           : answer && isSuccess(result)
                               ? "pushed"
                               : "it pushed nothing (status " +
                                     std::to_string(static_cast<int>(result.discStatus)) + ")");
}

void ExplorerRegisterTimer::run()
{
    // Compat(log-timers): log readers find the runs of the register timer under this name.
    DISC_TRACE("DiscoveryRepository::ExplorerRegisterTimer::handle_timeout");
    TlxHostname master;
    m_owner.getMasterServerName(master);
    if (master.empty()) {
        DISC_LOG(1, "Cannot find master server name, cannot register explorers");
        return scheduleAgain(RETRY_SECONDS);
    }
    const std::shared_ptr<const ExplorerSet> explorers = m_owner.getPullExplorers();
    DISC_LOG(4, "Registering " << explorers->size() << " explorers with master server");
    try {
        const Remote::DiscoveryService_var service = m_owner.connectToMaster(master);
        if (CORBA::is_nil(service)) {
            if (m_owner.isShuttingDown())
                return;
            DISC_WARN("Failed to connect to discovery service on the master, retrying later");
            return scheduleAgain(RETRY_SECONDS);
        }
        if (!registerAll(*explorers, service))
            return;
    } catch (const CORBA::Exception& e) {
        DISC_WARN("Caught CORBA exception registering explorers with master, retrying later");
        DISC_WARN(describeException(e));
        return scheduleAgain(RETRY_SECONDS);
    }
    DISC_LOG(4, "Successfully registered explorers with master");
    m_owner.startPushTimer();
}

bool ExplorerRegisterTimer::registerAll(const ExplorerSet& explorers,
                                        Remote::DiscoveryService_ptr master)
{
    const std::string host = localHost();
    const std::string serviceName = m_owner.getOrbServiceName().utf8();
    const LockableGuard lockableGuard(*this);
    if (!TLX_ASSERT(lockableGuard.locked()))
        return false;
    for (const AutoDereference<ExplorerWrapper>& wrapper : explorers) {
        if (m_owner.isShuttingDown())
            return false;
        // Compat(register-short): peers take the priority as a 16-bit number. A larger one is cut.
        master->registerExplorer(
            serviceName.c_str(), host.c_str(), wrapper->getSubject()->getSubject().c_str(),
            wrapper->getAuthority()->getName().c_str(), wrapper->getAuthority()->getType(),
            static_cast<CORBA::Short>(wrapper->getPriority()));
    }
    return true;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
