#pragma once
// The service's own parser of explorer data: it understands nothing and keeps everything.

#include <cstddef>
#include <string>
#include <string_view>

#include "Explorer.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The inner XML of a block that is kept, in bytes. Escaped it can be six times as long as it was.
constexpr std::size_t MAX_EXPLORER_DATA_BYTES = 16u << 20;

/// A block's inner XML as text.
class DISCSRV_EXPORT DefaultExplorerData : public virtual ExplorerData
{
  public:
    explicit DefaultExplorerData(TlxString explorerName) : m_explorerName(std::move(explorerName))
    {
    }
    /// Writes the text as it stands; the encoding is ignored.
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    const std::string& text() const { return m_text; }
    void append(std::string_view text) { m_text += text; }
    const TlxString& getExplorerName() const { return m_explorerName; }

  private:
    std::string m_text;
    const TlxString m_explorerName;
};

/// Writes the inner XML of a block out again while it is parsed. Attribute names come out in
/// quotation marks, as they always have: a block with attributes cannot be read back as XML.
/// A block with more than MAX_EXPLORER_DATA_BYTES ends the parse.
class DISCSRV_EXPORT DefaultExplorerDataParser : public virtual ExplorerDataParser
{
  public:
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;
    /// Not to be called.
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;
    XmlObjParseContext* getParseContext(const TlxString& explorerName, const XMLCh* elementName,
                                        const XmlObjParseContext* parent) override;
    ExplorerData* getExplorerData(XmlObjParseContext* context) override;
    const char* getExplorerParserName() const override;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
