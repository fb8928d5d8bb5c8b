#pragma once
// The record model without a backend behind it.

#include <cstddef>
#include <sstream>
#include <string>

#include "DiscData.h"

namespace QmTest {

namespace Tlx = Veltrane::Quillmark::Tlx;
namespace Disc = Veltrane::Quillmark::Tlx::DiscoverySvc;

class NoData : public Disc::CollectionData
{
  public:
    bool open(Disc::OpenMode, const char*) override { return true; }
    std::size_t readCollection(std::size_t, void*) const override { return 0; }
    bool writeCollection(std::size_t, const void*) const override { return true; }
};

class PlainDiscovery : public Disc::Discovery
{
  public:
    explicit PlainDiscovery(Disc::CollectionData* data = new NoData)
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

/// What an object writes of itself.
inline std::string written(const Tlx::XmlInterface& object,
                           Tlx::XmlStr::Encoding encoding = Tlx::XmlStr::XE_UTF8)
{
    std::ostringstream out;
    object.writeXml(out, encoding);
    return out.str();
}

} // namespace QmTest
