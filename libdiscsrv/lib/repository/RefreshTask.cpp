#include "RefreshTask.h"

#include <ace/Guard_T.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>
#include <ace/Thread.h>

#include <tlx/Servant.h>

#include "DiscLog.h"
#include "ServiceConnection.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscoveryRepository";
constexpr long THREAD_FLAGS = THR_NEW_LWP | THR_JOINABLE;
static_assert(THREAD_FLAGS == 0x10002);
} // namespace

DiscoveriesThreadMgr* getDiscoveriesThreadMgr()
{
    return ACE_Singleton<DiscoveriesThreadMgr, ACE_Recursive_Thread_Mutex>::instance();
}

int RefreshDiscoveryTask::svc()
{
    DISC_TRACE("RefreshDiscoveryTask::svc");
    for (const TlxString& client : m_repository.getDiscoveredClientList()) {
        if (m_repository.isShuttingDown()) {
            DISC_NOTICE("qmdisco shutting down, aborting refresh task");
            break;
        }
        DISC_LOG(4, "Restarting push timers on client: " << client);
        restart(client);
    }
    return 0;
}

void RefreshDiscoveryTask::restart(const TlxString& client) const
{
    if (isSameIgnoringCase(TlxHostname::local().text(), client)) {
        // This host's explorers push as well, but no service connects to itself.
        m_repository.triggerPushTimer();
        return;
    }
    const TlxHostname host(client);
    try {
        const Remote::DiscoveryService_var service =
            m_repository.connectToRemoteDiscoveryService(host, DISCOVERY_SERVICE);
        if (CORBA::is_nil(service))
            DISC_WARN("Failed to connect to client discovery service");
        else
            service->restartLocalPushTimer();
    } catch (const CORBA::Exception& e) {
        DISC_WARN("Caught CORBA exception connecting to remote service");
        DISC_WARN(describeException(e));
    }
}

DiscoveriesThreadMgr::DiscoveriesThreadMgr() : m_refresh(*getDiscoveryRepository()) {}

DiscoveriesThreadMgr::~DiscoveriesThreadMgr()
{
    m_refresh.wait();
}

bool DiscoveriesThreadMgr::restartAllPushTimers()
{
    const ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    if (m_refresh.running() > 0 || getDiscoveryRepository()->isShuttingDown())
        return false;
    m_refresh.wait(); // joins the thread of the previous refresh, which has ended
    return m_refresh.activate(THREAD_FLAGS, 1);
}

std::size_t DiscoveriesThreadMgr::getRunningThreads() const
{
    const ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    return m_refresh.running();
}

void DiscoveriesThreadMgr::wait()
{
    m_refresh.wait();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
