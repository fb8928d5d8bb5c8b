#include "XmlBounds.h"

#include <string_view>

#include <tlx/Xml.h>

#include "XmlFailure.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

/// The beginning of a name, so that no document can fill the log.
std::string shown(const XMLCh* name)
{
    constexpr std::size_t longest = 64;
    return TlxString::fromXmlCh(std::basic_string_view<XMLCh>(name).substr(0, longest)).utf8();
}

} // namespace

void XmlBounds::begin(XmlSource& source)
{
    m_source = &source;
    m_refused = nullptr;
    m_bytesAtEvent = 0;
    m_inRoot = false;
    m_depth = 0;
    m_nodes = 0;
    source.beforeReads([this] { return mayReadOn(); });
}

void XmlBounds::end()
{
    m_source = nullptr;
    if (m_refused)
        std::rethrow_exception(m_refused);
}

void XmlBounds::enterElement(const xercesc::XMLElementDecl& declaration, std::size_t attributeCount)
{
    if (m_depth >= XML_MAX_DEPTH)
        refuse("elements are nested deeper than " + std::to_string(XML_MAX_DEPTH));
    countNodes(1 + attributeCount);
    checkNames(declaration);
    m_inRoot = true;
    noteEvent();
    ++m_depth;
}

void XmlBounds::leaveElement()
{
    --m_depth;
    noteEvent();
}

void XmlBounds::declareEntity(const xercesc::DTDEntityDecl& declaration, bool isParameterEntity)
{
    if (isParameterEntity)
        forbid("the parameter entity", declaration.getName());
    if (declaration.getValueLen() > XML_MAX_ENTITY_TEXT)
        refuse("the text of the entity " + shown(declaration.getName()) + " is longer than " +
               std::to_string(XML_MAX_ENTITY_TEXT));
    countNodes(1);
}

void XmlBounds::forbid(const std::string& what, const XMLCh* name) const
{
    refuse(what + " " + shown(name) + " is not allowed");
}

void XmlBounds::countNodes(std::size_t more)
{
    m_nodes += more;
    if (m_nodes > m_nodeLimit)
        refuse("there are more than " + std::to_string(m_nodeLimit) +
               " elements, attributes and entities");
}

/// The library numbers the names of elements in the order in which they come.
void XmlBounds::checkNames(const xercesc::XMLElementDecl& declaration) const
{
    if (declaration.getId() > XML_MAX_ELEMENT_NAMES)
        refuse("there are more than " + std::to_string(XML_MAX_ELEMENT_NAMES) +
               " different names of elements");
}

/// The source calls this before the parser reads more. By then the parser has processed nearly all
/// that it read. An exception from here would make the parser leak the trees that it builds. So the
/// document ends here, and end throws the refusal.
bool XmlBounds::mayReadOn() noexcept
{
    if (m_refused)
        return false;
    try {
        checkBytes();
    } catch (...) {
        m_refused = std::current_exception();
    }
    return !m_refused;
}

void XmlBounds::checkBytes() const
{
    const std::size_t bytes = m_source->bytesRead();
    if (!m_inRoot && bytes > XML_MAX_PROLOG_BYTES)
        refuse("there are more than " + std::to_string(XML_MAX_PROLOG_BYTES) +
               " bytes before the document's element");
    if (bytes - m_bytesAtEvent > XML_MAX_PIECE_BYTES)
        refuse("a tag, a comment or a piece of text has more than " +
               std::to_string(XML_MAX_PIECE_BYTES) + " bytes");
}

void XmlBounds::refuse(const std::string& reason) const
{
    refuseDocument(reason, *m_place);
}

} // namespace Veltrane::Quillmark::Tlx
