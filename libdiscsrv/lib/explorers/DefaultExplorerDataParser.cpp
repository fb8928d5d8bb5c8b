#include "DefaultExplorerDataParser.h"

#include <ostream>
#include <streambuf>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DefaultExplorerDataParser";

/// Appends to the data up to MAX_EXPLORER_DATA_BYTES.
class DataBuffer : public std::streambuf
{
  public:
    explicit DataBuffer(DefaultExplorerData& data) : m_data(data) {}

  protected:
    int_type overflow(int_type letter) override
    {
        const char text = traits_type::to_char_type(letter);
        return xsputn(&text, 1) == 1 ? letter : traits_type::eof();
    }
    std::streamsize xsputn(const char* text, std::streamsize length) override
    {
        const auto bytes = static_cast<std::size_t>(length);
        if (bytes > MAX_EXPLORER_DATA_BYTES - m_data.text().size())
            return 0;
        m_data.append({text, bytes});
        return length;
    }

  private:
    DefaultExplorerData& m_data;
};

class DefaultExplorerParserContext : public XmlObjParseContext
{
  public:
    DefaultExplorerParserContext(const XMLCh* elementName, const XmlObjParseContext* parent,
                                 const TlxString& explorerName)
        : XmlObjParseContext(elementName, parent), m_data(new DefaultExplorerData(explorerName)),
          m_buffer(*m_data), m_out(&m_buffer)
    {
    }

    /// Moves the collected text to the data.
    void takeText()
    {
        m_out << XmlStr(text());
        clearText();
    }

    /// Ends the parse if the data are too long.
    void checkRoom() const
    {
        if (!m_out)
            refuse("the data of an explorer have more than " +
                   std::to_string(MAX_EXPLORER_DATA_BYTES) + " bytes");
    }

    const AutoDereference<DefaultExplorerData> m_data;
    DataBuffer m_buffer;
    std::ostream m_out; ///< to the data
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
    std::ostream& tag = ctxt->m_out;
    tag << '<' << TlxString::fromXmlCh(name);
    // Compat(block-quoted-names): plug-ins and programs read blocks in which attribute names have
    // quotation marks.
    for (XMLSize_t i = 0; i < attributes.getLength(); ++i)
        tag << " \"" << TlxString::fromXmlCh(attributes.getName(i)) << "\"=\""
            << XmlStr(TlxString::fromXmlCh(attributes.getValue(i))) << '"';
    tag << '>';
    ctxt->checkRoom();
}

int DefaultExplorerDataParser::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    DISC_TRACE("DefaultExplorerDataParser::xmlEndElement");
    auto* ctxt = dynamic_cast<DefaultExplorerParserContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return XML_NOTHING;
    ctxt->takeText();
    // Compat(block-ends-early): plug-ins rely on this: a block ends at the first end tag that has
    // its name.
    const bool complete = ctxt->isEndTag(name);
    if (!complete)
        ctxt->m_out << "</" << TlxString::fromXmlCh(name) << '>';
    ctxt->checkRoom();
    return complete ? XML_COMPLETE : XML_INSIDE;
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
    // Compat(block-parser-name): plug-ins know the default parser by this name.
    return "DefaultExplorerParser";
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
