#pragma once
// The service's own parser of explorer data. It keeps a block as text and does not interpret it.

#include <cstddef>
#include <string>
#include <string_view>

#include "Explorer.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The largest inner XML of a block, in bytes after escaping. Escaping makes a text up to six times
/// longer.
constexpr std::size_t MAX_EXPLORER_DATA_BYTES = 16u << 20;

/// The inner XML of a block, as text.
class DISCSRV_EXPORT DefaultExplorerData : public virtual ExplorerData
{
  public:
    explicit DefaultExplorerData(TlxString explorerName) : m_explorerName(std::move(explorerName))
    {
    }
    /// Writes the text unchanged and ignores the encoding.
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;

    const std::string& text() const { return m_text; }
    void append(std::string_view text) { m_text += text; }
    /// For plug-ins: the service itself does not use the name.
    const TlxString& getExplorerName() const { return m_explorerName; }

  private:
    std::string m_text;
    const TlxString m_explorerName;
};

/// Writes the inner XML of a block again while it is parsed. A block longer than
/// MAX_EXPLORER_DATA_BYTES ends the parse.
///
/// Attribute names get quotation marks. So the text of a block with attributes is not XML.
class DISCSRV_EXPORT DefaultExplorerDataParser : public virtual ExplorerDataParser
{
  public:
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override;
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override;
    /// Do not call it: it fails an assertion.
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const override;
    XmlObjParseContext* getParseContext(const TlxString& explorerName, const XMLCh* elementName,
                                        const XmlObjParseContext* parent) override;
    ExplorerData* getExplorerData(XmlObjParseContext* context) override;
    const char* getExplorerParserName() const override;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
