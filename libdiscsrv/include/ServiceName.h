#pragma once
// The name under which the service is known.

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Every host advertises its service under this name and registers its explorers with it.
// Compat(wire-service-name): peers look the service up under this name, and stores hold it.
constexpr const char* DISCOVERY_SERVICE = "DiscoveryService";

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
