#include "DiscoverySvc.h"

#include <tlx/HostConfig.h>

#include "AccessRules.h"
#include "DiscLog.h"
#include "ServiceKeys.h"
#include "ServiceName.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscoverySvc";
constexpr unsigned REQUEST_TIMEOUT_SECONDS = 30;
constexpr std::size_t RESERVED = 0;
} // namespace

DiscoverySvc::DiscoverySvc(bool foreground)
    : OrbService(DISCOVERY_SERVICE, LOG_ORIGINATOR, nullptr, foreground, "Discovery Service", false,
                 RESERVED, nullptr)
{
    m_allowSeveral = false;
    m_evictorEnabled = true;
    DISC_TRACE("DiscoverySvc::DiscoverySvc");
}

DiscoverySvc::~DiscoverySvc()
{
    DISC_TRACE("DiscoverySvc::~DiscoverySvc");
    m_framework.reset();
}

bool DiscoverySvc::doShouldStart()
{
    DISC_TRACE("DiscoverySvc::doShouldStart");
    if (QM_read_master_config() != 0) {
        DISC_LOG(1, "Failed to read config");
        return true;
    }
    if (HostConfig::instance().getBoolean(ConfigKey::REPORT_CLIENT_DISCOVERIES).value_or(true))
        return true;
    DISC_LOG(4, "Shutting down qmdisco as directed by REPORT_CLIENT_DISCOVERIES=FALSE");
    return false;
}

void DiscoverySvc::doInit()
{
    DISC_TRACE("DiscoverySvc::doInit");
}

int DiscoverySvc::doRun()
{
    DISC_TRACE("DiscoverySvc::doRun");
    setAceReactor(getOrb()->getReactor());
    getOrb()->setOrbRequestTimeout(REQUEST_TIMEOUT_SECONDS);
    AccessRules::instance().start(); // before the first request
    m_framework.reset(new DiscoveryFramework("", DST_GENERIC, getOrb(), true));
    if (m_framework->init())
        return 0;
    DISC_LOG(1, "Failed to initialize the discovery framework");
    return -1;
}

void DiscoverySvc::doStop()
{
    DISC_TRACE("DiscoverySvc::doStop");
    if (m_framework)
        m_framework->shutdown();
    AccessRules::instance().stop();
}

void DiscoverySvc::doExit()
{
    DISC_TRACE("DiscoverySvc::doExit");
    if (m_framework)
        m_framework->fini();
}

void DiscoverySvc::doReconfig()
{
    DISC_TRACE("DiscoverySvc::doReconfig");
    AccessRules::instance().reload();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
