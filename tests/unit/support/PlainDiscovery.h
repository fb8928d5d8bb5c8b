#pragma once
// A discovery with its data in memory.

#include <sstream>
#include <string>

#include "DiscData.h"
#include "support/MemoryData.h"

namespace QmTest {

namespace Tlx = Veltrane::Quillmark::Tlx;
namespace Disc = Veltrane::Quillmark::Tlx::DiscoverySvc;

class PlainDiscovery : public Disc::Discovery
{
  public:
    explicit PlainDiscovery(Disc::CollectionData* data = new MemoryData)
        : Discovery(data, Disc::DQ_DISCOVERY_DATA)
    {
    }
    Disc::DiscoveryResult persist() override { return {Disc::DS_SUCCESS, 0}; }
    Disc::DiscoveryResult open(Disc::OpenMode, const char*) override
    {
        return {Disc::DS_SUCCESS, 0};
    }
    using Discovery::clearDocumentRefused;
    using Discovery::isDocumentRefused;
};

/// The XML that an object writes.
inline std::string written(const Tlx::XmlInterface& object,
                           Tlx::XmlStr::Encoding encoding = Tlx::XmlStr::XE_UTF8)
{
    std::ostringstream out;
    object.writeXml(out, encoding);
    return out.str();
}

} // namespace QmTest
