// Lets a process that is not a service read discoveries.

#include "Researcher.h"

#include <cstdlib>

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include "DiscLog.h"
#include "DiscoveryRepository.h"
#include "PeerLink.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../Researcher";
constexpr const char* OPERATION = "initDiscoveryResearch";
constexpr unsigned REQUEST_TIMEOUT_SECONDS = 30;

tl::expected<DiscoveryResearcher*, std::string> theResearcher()
{
    using Singleton = ACE_Singleton<DiscoveryResearcher, ACE_Recursive_Thread_Mutex>;
    try {
        DiscoveryResearcher* const researcher = Singleton::instance();
        // The ACE object manager would destroy it too late, after the end of the ORB's library.
        static const int leaves = std::atexit([] { Singleton::close(); });
        if (leaves != 0)
            DISC_LOG(1, "The researcher will not end in order");
        return researcher;
    } catch (const OrbError& e) {
        const std::string failure = std::string("Failed to make the researcher: ") + e.what();
        DISC_LOG(1, failure);
        return tl::unexpected(failure);
    }
}

} // namespace

DiscoveryResearcher* initDiscoveryResearch()
{
    DISC_TRACE(OPERATION);
    return theResearcher().value_or(nullptr);
}

tl::expected<DiscoveryResearcher*, std::string> initDiscoveryResearch(const MasterAddress& master)
{
    DISC_TRACE(OPERATION);
    getPeerLink().setMaster(master);
    return theResearcher();
}

DiscoveryResearcher::DiscoveryResearcher()
    : m_orb(true, "", "researcher", true),
      m_framework(new DiscoveryFramework("discovery", DST_NO_SERVANT, &m_orb, true))
{
    DISC_TRACE("DiscoveryResearcher::DiscoveryResearcher");
    m_orb.setOrbRequestTimeout(REQUEST_TIMEOUT_SECONDS);
    m_framework->init();
}

DiscoveryResearcher::~DiscoveryResearcher()
{
    DISC_TRACE("DiscoveryResearcher::~DiscoveryResearcher");
    m_framework->shutdown();
    m_framework->fini();
    // The repository lives longer than the framework's ORB, so it must not keep the framework.
    getDiscoveryRepository()->setDiscoveryFramework(nullptr);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
