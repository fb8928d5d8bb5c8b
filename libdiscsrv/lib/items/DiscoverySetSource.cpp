#include "DiscoverySetSource.h"

#include "DiscLog.h"
#include "PeerLink.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../Researcher";
} // namespace

DiscoverySetBinInputStream::DiscoverySetBinInputStream(const CollectionData& data) : m_data(data) {}

XMLFilePos DiscoverySetBinInputStream::curPos() const
{
    return m_position;
}

XMLSize_t DiscoverySetBinInputStream::readBytes(XMLByte* buffer, XMLSize_t maxToRead)
{
    DISC_TRACE("DiscoverySetBinInputStream::readBytes");
    if (getPeerLink().isShuttingDown())
        return 0;
    const std::size_t count = m_data.readCollection(maxToRead, buffer);
    if (count > maxToRead)
        return 0;
    if (m_position + count > MAX_ITEMS_DOCUMENT_BYTES) {
        DISC_WARN("A collection that is read as items may have " << MAX_ITEMS_DOCUMENT_BYTES
                                                                 << " bytes, this one has more");
        return 0;
    }
    m_position += count;
    return count;
}

const XMLCh* DiscoverySetBinInputStream::getContentType() const
{
    return nullptr;
}

DiscoverySetInputSource::DiscoverySetInputSource(const CollectionData& data, const char* systemId)
    : InputSource(systemId), m_data(data)
{
}

xercesc::BinInputStream* DiscoverySetInputSource::makeStream() const
{
    return new DiscoverySetBinInputStream(m_data);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
