#include <tlx/Xml.h>

#include <algorithm>

#include <tlx/Text.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

/// Whether a document of XML 1.0, the version that we write, cannot carry the unit. Surrogates come
/// in pairs.
bool isNoXmlCharacter(XMLCh c)
{
    return (c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0xFFFE || c == 0xFFFF;
}

} // namespace

XmlObjParseContext::XmlObjParseContext(const XMLCh* elementName, const XmlObjParseContext* parent)
    : m_elementName(elementName ? std::basic_string<XMLCh>(elementName)
                                : std::basic_string<XMLCh>()),
      m_parse(parent ? parent->m_parse : std::make_shared<Parse>())
{
}

XmlObjParseContext::~XmlObjParseContext() = default;

bool XmlObjParseContext::isEndTag(const XMLCh* name) const
{
    return name && m_elementName == name;
}

bool XmlObjParseContext::cmptag(const XMLCh* name, const char* tag)
{
    if (!name || !tag)
        return false;
    while (*name && *tag &&
           lowerCase(*name) == lowerCase(XMLCh{static_cast<unsigned char>(*tag)})) {
        ++name;
        ++tag;
    }
    return *name == 0 && *tag == 0;
}

bool XmlObjParseContext::isTag(const XMLCh* name, const char* tag)
{
    if (!name || !tag)
        return false;
    // Tags are plain ASCII, so they are compared without a conversion.
    while (*name && *name == static_cast<unsigned char>(*tag)) {
        ++name;
        ++tag;
    }
    return *name == 0 && *tag == 0;
}

TlxString XmlObjParseContext::text() const
{
    return TlxString::fromXmlCh(m_text);
}

void XmlObjParseContext::appendText(const XMLCh* chars, std::size_t length)
{
    if (!chars)
        return;
    if (length > XML_MAX_TEXT - m_text.size()) {
        refuse("a text has more than " + std::to_string(XML_MAX_TEXT) + " characters");
        return;
    }
    const std::size_t start = m_text.size();
    m_text.append(chars, length);
    std::replace_if(m_text.begin() + static_cast<std::ptrdiff_t>(start), m_text.end(),
                    isNoXmlCharacter, static_cast<XMLCh>(0xFFFD));
}

void XmlObjParseContext::clearText()
{
    m_text.clear();
}

void XmlObjParseContext::refuse(const TlxString& reason) const
{
    if (m_parse->refusal.empty())
        m_parse->refusal = reason;
}

void XmlObjParseContext::countFault() const
{
    if (++m_parse->faults > XML_MAX_FAULTS)
        refuse("there are more than " + std::to_string(XML_MAX_FAULTS) +
               " elements that are unknown or refused");
}

void XmlInterface::xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                                 unsigned long length)
{
    if (context)
        context->appendText(chars, length);
}

void XmlInterface::xmlStartElement(XmlObjParseContext* context, const XMLCh*, AttributeList&)
{
    // Counts an element once, even if several objects pass it to this function.
    if (context && !context->isSkipping())
        context->skipEnter();
}

int XmlInterface::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    return context && !context->isEndTag(name) ? XML_INSIDE : XML_COMPLETE;
}

std::ostream& XmlInterface::writeXml(std::ostream& out, XmlStr::Encoding) const
{
    return out;
}

XmlInterface::~XmlInterface() = default;

TlxString xmlAttribute(AttributeList& attributes, const char* name)
{
    return TlxString::fromXmlCh(attributes.getValue(TlxString(name).toXmlCh().c_str()));
}

} // namespace Veltrane::Quillmark::Tlx
