#pragma once
// Collection data as the XML parser reads documents.

#include <cstddef>

#include <xercesc/sax/InputSource.hpp>
#include <xercesc/util/BinInputStream.hpp>

#include "DiscData.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The largest document that is read as items. Of a document are kept its items, the names of its
/// elements, what the parser has not told of yet, and one text at a time, that three times;
/// tlx/Xml.h has the bounds of all but the items.
constexpr std::size_t MAX_ITEMS_DOCUMENT_BYTES = 64u << 20;

/// The bytes of open collection data, from where it stands. A failed read is the end; so are
/// the end of the service, which waits for no document, and MAX_ITEMS_DOCUMENT_BYTES, which is
/// logged.
class DISCSRV_EXPORT DiscoverySetBinInputStream : public xercesc::BinInputStream
{
  public:
    /// @param data outlives the stream.
    explicit DiscoverySetBinInputStream(const CollectionData& data);
    XMLFilePos curPos() const override;
    XMLSize_t readBytes(XMLByte* buffer, XMLSize_t maxToRead) override;
    /// Null: the document tells its encoding.
    const XMLCh* getContentType() const override;

  private:
    const CollectionData& m_data;
    XMLFilePos m_position = 0;
};

/// Used by one thread; reads nothing by itself. The XML library must be up (tlx/Xml.h).
class DISCSRV_EXPORT DiscoverySetInputSource : public xercesc::InputSource
{
  public:
    /// @param data open for reading; outlives this object and its streams.
    DiscoverySetInputSource(const CollectionData& data, const char* systemId);
    /// A new stream, which the caller owns.
    xercesc::BinInputStream* makeStream() const override;

  private:
    const CollectionData& m_data;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
