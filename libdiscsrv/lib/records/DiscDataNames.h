#pragma once
// The names of the elements and attributes in a metadata document:
//
//     <DiscoveryData>
//       <DiscoveryAuthority Name="srv1" Type="1">[<STATUSMSG/>]</DiscoveryAuthority>
//       <DiscoverySubject Name="cl5">[<STATUSMSG/>]</DiscoverySubject>
//       <DiscoveryAttributes Type="2" Storage="1"><Priority>5</Priority>...</DiscoveryAttributes>
//     </DiscoveryData>
//
// (without the white space). The document leaves out the time to live, because it has the expiry
// time. PRIORITY is in DiscData.h.

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

constexpr const char* TAG_DISCOVERY_DATA = "DiscoveryData";
constexpr const char* TAG_DISCOVERY_AUTHORITY = "DiscoveryAuthority";
constexpr const char* TAG_DISCOVERY_SUBJECT = "DiscoverySubject";
constexpr const char* TAG_DISCOVERY_ATTRIBUTES = "DiscoveryAttributes";
constexpr const char* TAG_DISCOVERY_TIME = "DiscoveryTime";
constexpr const char* TAG_EXPIRES_TIME = "ExpiresTime";
constexpr const char* TAG_SIGNATURE = "Signature";
constexpr const char* ATTRIBUTE_NAME = "Name";
constexpr const char* ATTRIBUTE_TYPE = "Type";
constexpr const char* ATTRIBUTE_STORAGE = "Storage";

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
