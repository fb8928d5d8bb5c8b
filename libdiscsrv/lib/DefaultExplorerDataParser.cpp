#include "DefaultExplorerDataParser.h"

#include <sstream>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DefaultExplorerDataParser";

class DefaultExplorerParserContext : public XmlObjParseContext
{
  public:
    DefaultExplorerParserContext(const XMLCh* elementName, const XmlObjParseContext* parent,
                                 const TlxString& explorerName)
        : XmlObjParseContext(elementName, parent), m_data(new DefaultExplorerData(explorerName))
    {
    }

    /// Moves the text collected so far to the data.
    void takeText()
    {
        std::ostringstream escaped;
        escaped << XmlStr(text());
        clearText();
        m_data->append(escaped.str());
    }

    const AutoDereference<DefaultExplorerData> m_data;
};

} // namespace

std::ostream& DefaultExplorerData::writeXml(std::ostream& out, XmlStr::Encoding) const
{
    return out << m_text;
}

void DefaultExplorerDataParser::xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                                                AttributeList& attributes)
{
    DISC_TRACE("DefaultExplorerDataParser::xmlStartElement");
    auto* ctxt = dynamic_cast<DefaultExplorerParserContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return;
    ctxt->takeText();
    std::ostringstream tag;
    tag << '<' << TlxString::fromXmlCh(name);
    for (XMLSize_t i = 0; i < attributes.getLength(); ++i)
        tag << " \"" << TlxString::fromXmlCh(attributes.getName(i)) << "\"=\""
            << XmlStr(TlxString::fromXmlCh(attributes.getValue(i))) << '"';
    tag << '>';
    ctxt->m_data->append(tag.str());
}

int DefaultExplorerDataParser::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    DISC_TRACE("DefaultExplorerDataParser::xmlEndElement");
    auto* ctxt = dynamic_cast<DefaultExplorerParserContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return XML_NOTHING;
    ctxt->takeText();
    if (ctxt->isEndTag(name))
        return XML_COMPLETE;
    ctxt->m_data->append("</" + TlxString::fromXmlCh(name).utf8() + ">");
    return XML_INSIDE;
}

std::ostream& DefaultExplorerDataParser::writeXml(std::ostream& out, XmlStr::Encoding) const
{
    DISC_TRACE("DefaultExplorerDataParser::writeXml");
    TLX_SHOULD_NOT_GET_HERE();
    return out;
}

XmlObjParseContext* DefaultExplorerDataParser::getParseContext(const TlxString& explorerName,
                                                               const XMLCh* elementName,
                                                               const XmlObjParseContext* parent)
{
    DISC_TRACE("DefaultExplorerDataParser::getParseContext");
    return new DefaultExplorerParserContext(elementName, parent, explorerName);
}

ExplorerData* DefaultExplorerDataParser::getExplorerData(XmlObjParseContext* context)
{
    DISC_TRACE("DefaultExplorerDataParser::getExplorerData");
    auto* ctxt = dynamic_cast<DefaultExplorerParserContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return nullptr;
    return AutoDereference<DefaultExplorerData>(ctxt->m_data).release();
}

const char* DefaultExplorerDataParser::getExplorerParserName() const
{
    return "DefaultExplorerParser";
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
