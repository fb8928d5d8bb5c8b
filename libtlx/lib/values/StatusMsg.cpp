#include <tlx/StatusMsg.h>

#include <tlx/Assert.h>
#include <tlx/ValueConverter.h>

namespace Veltrane::Quillmark::Tlx {

void StatusMsg::xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                                AttributeList& attributes)
{
    // A status message has no elements of its own.
    XmlInterface::xmlStartElement(context, name, attributes);
}

int StatusMsg::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    if (!TLX_ASSERT(context))
        return XML_NOTHING;
    if (!context->isEndTag(name))
        return XML_INSIDE;
    m_text = context->text();
    return XML_COMPLETE;
}

std::ostream& StatusMsg::writeXml(std::ostream& out, XmlStr::Encoding encoding) const
{
    out << '<' << TAG;
    XmlStr::appendAttribute(out, "Code", TlxString(std::to_string(m_code)), encoding);
    out << '>' << XmlStr(m_text, encoding);
    return XmlStr::appendEnd(out, TAG);
}

XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                    const XmlObjParseContext* parent, StatusMsg*& message)
{
    auto context = std::make_unique<XmlObjParseContext>(name, parent);
    std::int32_t code = 0;
    fromText(xmlAttribute(attributes, "Code"), code);
    message = new StatusMsg(code, TlxString());
    return context.release();
}

} // namespace Veltrane::Quillmark::Tlx
