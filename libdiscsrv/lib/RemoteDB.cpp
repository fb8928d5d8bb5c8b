#include "RemoteDB.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <tlx/HostConfig.h>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../RemoteDB";
} // namespace

RemoteDBCreator* getRemoteDiscoveryDatabase()
{
    return ACE_Singleton<RemoteDBCreator, ACE_Recursive_Thread_Mutex>::instance();
}

RemoteDBCreator::RemoteDBCreator()
{
    setIsMaster();
}

void RemoteDBCreator::setIsMaster()
{
    DISC_TRACE("RemoteDBCreator::setIsMaster");
    m_isMaster = QM_is_master("localhost");
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
