#include "HostedService.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

HostedService::~HostedService() = default;

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
