#include "PageBounds.h"

#include <algorithm>

#include <tlx/HostConfig.h>
#include <tlx/OrbKeys.h>

#include "EvictableServant.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

std::size_t largestPage()
{
    const std::size_t message = HostConfig::instance().number(ConfigKey::MAX_MESSAGE_BYTES);
    return std::min(MAX_PAGE_BYTES, message - PAGE_HEADER_BYTES);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
