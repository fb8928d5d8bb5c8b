#pragma once
// The name under which the service is known.

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Every host advertises its service under this name and registers its explorers with it. It stays:
/// deployed peers look for it, and the stores of masters hold it.
constexpr const char* DISCOVERY_SERVICE = "DiscoveryService";

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
