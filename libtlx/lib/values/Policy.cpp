#include <tlx/Policy.h>

#include <tlx/Assert.h>
#include <tlx/ValueConverter.h>

namespace Veltrane::Quillmark::Tlx {

namespace {
constexpr const char* ATTRIBUTE_NAME = "Name";
constexpr const char* ATTRIBUTE_TYPE = "Type";
constexpr const char* ATTRIBUTE_ACTIVE = "Active";
constexpr const char* ATTRIBUTE_RETENTION = "Retention";
} // namespace

void QmkPolicy::xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                                AttributeList& attributes)
{
    // A policy has no elements of its own.
    XmlInterface::xmlStartElement(context, name, attributes);
}

int QmkPolicy::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    if (!TLX_ASSERT(context))
        return XML_NOTHING;
    if (!context->isEndTag(name))
        return XML_INSIDE;
    m_values.comment = context->text();
    return XML_COMPLETE;
}

std::ostream& QmkPolicy::writeXml(std::ostream& out, XmlStr::Encoding encoding) const
{
    out << '<' << TAG;
    XmlStr::appendAttribute(out, ATTRIBUTE_NAME, m_values.name, encoding);
    XmlStr::appendAttribute(out, ATTRIBUTE_TYPE, m_values.type, encoding);
    XmlStr::appendAttribute(out, ATTRIBUTE_ACTIVE, m_values.active ? "1" : "0", encoding);
    XmlStr::appendAttribute(out, ATTRIBUTE_RETENTION, std::to_string(m_values.retention), encoding);
    out << '>' << XmlStr(m_values.comment, encoding);
    return XmlStr::appendEnd(out, TAG);
}

XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                    const XmlObjParseContext* parent, QmkPolicy*& policy)
{
    auto context = std::make_unique<XmlObjParseContext>(name, parent);
    QmkPolicy::Values values;
    values.name = xmlAttribute(attributes, ATTRIBUTE_NAME);
    values.type = xmlAttribute(attributes, ATTRIBUTE_TYPE);
    std::uint32_t active = 0;
    values.active = fromText(xmlAttribute(attributes, ATTRIBUTE_ACTIVE), active) && active == 1;
    fromText(xmlAttribute(attributes, ATTRIBUTE_RETENTION), values.retention);
    policy = new QmkPolicy(std::move(values));
    return context.release();
}

} // namespace Veltrane::Quillmark::Tlx
