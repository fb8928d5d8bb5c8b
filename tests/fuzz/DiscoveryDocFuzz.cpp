// A record's metadata document, which is somebody else's input once it is stored. What is accepted
// must come back the same when it is written and read again.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

#include <tlx/Log.h>

#include "DiscData.h"

namespace {

using namespace Veltrane::Quillmark::Tlx;
using namespace Veltrane::Quillmark::Tlx::DiscoverySvc;

void require(bool condition)
{
    if (!condition)
        std::abort();
}

class NoData : public CollectionData
{
  public:
    bool open(OpenMode, const char*) override { return false; }
    std::size_t readCollection(std::size_t, void*) const override { return 0; }
    bool writeCollection(std::size_t, const void*) const override { return false; }
};

class Record : public DiscoverySvc::Discovery
{
  public:
    Record() : Discovery(new NoData, DQ_DISCOVERY_DATA) {}
    DiscoveryResult persist() override { return {DS_LOGIC_ERROR, 0}; }
    DiscoveryResult open(OpenMode, const char*) override { return {DS_LOGIC_ERROR, 0}; }

    /// Whether the text is a record's document.
    bool read(const std::string& text)
    {
        clearDocumentRefused();
        return parseBuffer(text) && !isDocumentRefused() && getSubject() && getAuthority();
    }
    std::string written() const
    {
        std::ostringstream text;
        writeXml(text, XmlStr::XE_UTF8);
        return text.str();
    }
};

void compare(const Record& first, const Record& second)
{
    require(first.getSubject()->getSubject() == second.getSubject()->getSubject());
    require(first.getSubject()->getSubjectFileName() == second.getSubject()->getSubjectFileName());
    require(first.getAuthority()->getName() == second.getAuthority()->getName());
    require(first.getAuthority()->getNameFileName() == second.getAuthority()->getNameFileName());
    require(first.getAuthority()->getType() == second.getAuthority()->getType());
    require(first.getAuthority()->getType() >= AT_ANYANDALL &&
            first.getAuthority()->getType() <= AT_REMOTEPULL);
    require(!first.getAttributes() == !second.getAttributes());
    if (const CollectionAttributes* attributes = first.getAttributes()) {
        require(attributes->getType() == second.getAttributes()->getType());
        require(attributes->getType() <= CT_POINT_IN_TIME);
        require(attributes->getStorage() == second.getAttributes()->getStorage());
        require(attributes->getStorage() <= CS_CENTRALREPOSITORY);
        require(attributes->getPriority() == second.getAttributes()->getPriority());
        require(attributes->getDiscoveryTime() == second.getAttributes()->getDiscoveryTime());
        require(attributes->getExpiresTime() == second.getAttributes()->getExpiresTime());
        require(attributes->getSignature() == second.getAttributes()->getSignature());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    LoggerFactory::instance().setLevel(0);
    const AutoDereference<Record> first(new Record);
    if (!first->read(std::string(reinterpret_cast<const char*>(data), size)))
        return 0;
    const AutoDereference<Record> second(new Record);
    require(second->read(first->written()));
    compare(*first, *second);
    require(second->written() == first->written());
    return 0;
}
