#include "PushSchedule.h"

#include <cstdlib>
#include <utility>

#include "DiscLog.h"
#include "ExplorerTimers.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscoveryRepository";

// Compat(seed-from-name): operators know the delay of each host. The delay is the same at every
// start, because its seed is the number at the start of the host name.
unsigned seededDelay(unsigned range)
{
    const TlxHostname host = TlxHostname::local();
    std::srand(static_cast<unsigned>(std::strtol(host.c_str(), nullptr, 10)));
    return static_cast<unsigned>(std::rand()) % range;
}

} // namespace

PushSchedule::PushSchedule(PushScheduleOwner& owner) : m_owner(owner) {}
PushSchedule::~PushSchedule() = default;

void PushSchedule::startPush()
{
    DISC_TRACE("DiscoveryRepository::startPushTimer");
    // Before the guard: the old timer and its explorers are destroyed after the lock is released.
    AutoDereference<ExplorerPushTimer> timer;
    const LockableGuard lockableGuard(m_lock);
    if (!TLX_ASSERT(lockableGuard.locked()) || m_closed)
        return;
    timer.reset(new ExplorerPushTimer(m_owner, m_owner.getPushExplorers()));
    std::swap(timer, m_push);
    m_push->schedule(0);
}

void PushSchedule::startRegister()
{
    DISC_TRACE("DiscoveryRepository::startRegisterTimer");
    const LockableGuard lockableGuard(m_lock);
    if (!TLX_ASSERT(lockableGuard.locked()) || m_closed)
        return;
    const unsigned delay = seededDelay(FIRST_REGISTER_RANGE_SECONDS);
    m_register.reset(new ExplorerRegisterTimer(m_owner));
    m_register->schedule(delay);
}

void PushSchedule::trigger()
{
    DISC_TRACE("DiscoveryRepository::triggerPushTimer");
    const LockableGuard lockableGuard(m_lock);
    if (!TLX_ASSERT(lockableGuard.locked()) || !m_push)
        return;
    const unsigned delay = seededDelay(TRIGGERED_PUSH_RANGE_SECONDS);
    DISC_LOG(4, "triggering push in " << delay << " seconds");
    m_push->schedule(delay);
}

TlxObjTime PushSchedule::nextPush() const
{
    const LockableGuard lockableGuard(m_lock);
    return m_push ? m_push->due() : TlxObjTime();
}

void PushSchedule::close()
{
    const LockableGuard lockableGuard(m_lock);
    (void)TLX_ASSERT(lockableGuard.locked());
    m_closed = true;
}

void PushSchedule::cancel()
{
    // The timers are destroyed here, after the lock is released.
    AutoDereference<ExplorerPushTimer> push;
    AutoDereference<ExplorerRegisterTimer> registration;
    {
        const LockableGuard lockableGuard(m_lock);
        (void)TLX_ASSERT(lockableGuard.locked());
        std::swap(push, m_push);
        std::swap(registration, m_register);
    }
    for (DiscoveryTimerBase* timer : {static_cast<DiscoveryTimerBase*>(push.get()),
                                      static_cast<DiscoveryTimerBase*>(registration.get())})
        if (timer) {
            m_ended.add(*timer);
            timer->cancel();
        }
}

void PushSchedule::wait()
{
    m_ended.wait();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
