#include "ProductKeys.h"

#include <tlx/HostConfig.h>
#include <tlx/OrbKeys.h>

#include "DaemonKeys.h"
#include "FileSystemKeys.h"
#include "ServiceKeys.h"

namespace Veltrane::Quillmark {

void declareProductKeys()
{
    Tlx::HostConfig& config = Tlx::HostConfig::instance();
    config.declare(Tlx::ORB_KEYS);
    config.declare(Tlx::DiscoverySvc::SERVICE_KEYS);
    config.declare(Qmdisco::DAEMON_KEYS);
    config.declare(Explorers::FILE_SYSTEM_KEYS);
}

} // namespace Veltrane::Quillmark
