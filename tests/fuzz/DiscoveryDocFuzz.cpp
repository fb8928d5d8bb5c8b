// Fuzzes the metadata document of a record. Other programs may have changed a stored document. An
// accepted document must be the same after writing it and reading it again.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

#include <tlx/Log.h>

#include "DiscData.h"
#include "Fuzz.h"

namespace {

using namespace Veltrane::Quillmark::Tlx;
using namespace Veltrane::Quillmark::Tlx::DiscoverySvc;

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

    /// Reads the text. Returns false if no record has such a document.
    bool read(const std::string& text)
    {
        clearDocumentRefused();
        return parseBuffer(text) && !isDocumentRefused();
    }
    std::string written() const
    {
        std::ostringstream text;
        writeXml(text, XmlStr::XE_UTF8);
        return text.str();
    }
};

void compare(const StatusMsg* first, const StatusMsg* second)
{
    require(!first == !second);
    if (first)
        require(first->code() == second->code() && first->text() == second->text());
}

void compare(const Subject* first, const Subject* second)
{
    require(!first == !second);
    if (!first)
        return;
    require(*first == *second);
    require(!first->getSubject().empty());
    require(first->getSubject() == second->getSubject());
    require(first->getSubjectFileName() == second->getSubjectFileName());
    compare(first->getStatusMsg(), second->getStatusMsg());
}

void compare(const Authority* first, const Authority* second)
{
    require(!first == !second);
    if (!first)
        return;
    require(*first == *second);
    require(!first->getName().empty());
    require(first->getName() == second->getName());
    require(first->getNameFileName() == second->getNameFileName());
    require(first->getType() >= AT_ANYANDALL && first->getType() <= AT_REMOTEPULL);
    compare(first->getStatusMsg(), second->getStatusMsg());
}

void compare(const CollectionAttributes* first, const CollectionAttributes* second)
{
    require(!first == !second);
    if (!first)
        return;
    require(first->getType() == second->getType());
    require(first->getType() <= CT_POINT_IN_TIME);
    require(first->getStorage() == second->getStorage());
    require(first->getStorage() <= CS_CENTRALREPOSITORY);
    require(first->getPriority() == second->getPriority());
    require(first->getDiscoveryTime() == second->getDiscoveryTime());
    require(first->getExpiresTime() == second->getExpiresTime());
    require(first->getTimeToLive().isZero() && second->getTimeToLive().isZero());
    require(first->getSignature() == second->getSignature());
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
    compare(first->getSubject(), second->getSubject());
    compare(first->getAuthority(), second->getAuthority());
    compare(first->getAttributes(), second->getAttributes());
    require(second->written() == first->written());
    return 0;
}
