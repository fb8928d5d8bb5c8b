#pragma once
// Lets the XML parser read collection data.

#include <cstddef>

#include <xercesc/sax/InputSource.hpp>
#include <xercesc/util/BinInputStream.hpp>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The largest document that is read as items. Reading it needs memory for its items, the names of
/// its elements, the parser's buffer, and three copies of one text. tlx/Xml.h has the other bounds.
constexpr std::size_t MAX_ITEMS_DOCUMENT_BYTES = 64u << 20;

/// The bytes of open collection data, from its current position. A failed read ends the stream. A
/// shutdown also ends it, because a shutdown does not wait for a document. At
/// MAX_ITEMS_DOCUMENT_BYTES the stream also ends, with a log line.
class DISCSRV_EXPORT DiscoverySetBinInputStream : public xercesc::BinInputStream
{
  public:
    /// @param data must outlive the stream.
    explicit DiscoverySetBinInputStream(const CollectionData& data);
    XMLFilePos curPos() const override;
    XMLSize_t readBytes(XMLByte* buffer, XMLSize_t maxToRead) override;
    /// Returns null: the document states its encoding.
    const XMLCh* getContentType() const override;

  private:
    const CollectionData& m_data;
    XMLFilePos m_position = 0;
};

/// One thread uses it. It reads nothing itself. The XML library must be initialised (tlx/Xml.h).
class DISCSRV_EXPORT DiscoverySetInputSource : public xercesc::InputSource
{
  public:
    /// @param data is open for reading, and must outlive this object and its streams.
    DiscoverySetInputSource(const CollectionData& data, const char* systemId);
    /// Makes a new stream. The caller becomes its owner.
    xercesc::BinInputStream* makeStream() const override;

  private:
    const CollectionData& m_data;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
