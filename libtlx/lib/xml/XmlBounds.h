#pragma once
// Checks the bounds of tlx/Xml.h while a document is parsed.

#include <cstddef>
#include <exception>
#include <limits>
#include <string>

#include <xercesc/framework/XMLElementDecl.hpp>
#include <xercesc/sax/Locator.hpp>
#include <xercesc/validators/DTD/DTDEntityDecl.hpp>

#include "XmlSource.h"

namespace Veltrane::Quillmark::Tlx {

/// The longest text of an entity, in UTF-16 units. This bound and the bound on expansions limit the
/// memory for the entities of one document.
constexpr std::size_t XML_MAX_ENTITY_TEXT = 4096;

/// Counts the events of a parser. If an operation finds that a bound is exceeded, it refuses the
/// document: it throws an exception that guardXml turns into a failure. It serves one parse after
/// another, on one thread.
class XmlBounds
{
  public:
    /// @param place where the parser is; must outlive this object.
    void setPlace(const xercesc::Locator& place) { m_place = &place; }
    /// The most elements, attributes and entity declarations in one document. Unlimited by default.
    void setNodeLimit(std::size_t limit) { m_nodeLimit = limit; }

    /// Begins a document. Lets the source end early when the document exceeds a bound.
    /// @param source must outlive the parse.
    void begin(XmlSource& source);
    /// Whether the source ended early. Then the parser's own exception only reports an incomplete
    /// document.
    bool hasBrokenOff() const { return m_refused != nullptr; }
    /// Throws the refusal if the source ended early.
    void end();

    /// A start tag.
    void enterElement(const xercesc::XMLElementDecl& declaration, std::size_t attributeCount);
    /// An end tag.
    void leaveElement();
    unsigned depth() const { return m_depth; }
    void setDepth(unsigned depth) { m_depth = depth; }
    /// Any other event. After it, the parser no longer needs what it has read, except for the rest
    /// of the last block.
    void noteEvent() { m_bytesAtEvent = m_source->bytesRead(); }
    void declareElement(const xercesc::XMLElementDecl& declaration) const
    {
        checkNames(declaration);
    }
    void declareEntity(const xercesc::DTDEntityDecl& declaration, bool isParameterEntity);

    /// Refuses a declaration. @param what its kind, such as "the notation".
    [[noreturn]] void forbid(const std::string& what, const XMLCh* name) const;

  private:
    void countNodes(std::size_t more);
    void checkNames(const xercesc::XMLElementDecl& declaration) const;
    bool mayReadOn() noexcept;
    void checkBytes() const;
    [[noreturn]] void refuse(const std::string& reason) const;

    const xercesc::Locator* m_place = nullptr;
    std::size_t m_nodeLimit = std::numeric_limits<std::size_t>::max();
    const XmlSource* m_source = nullptr; ///< of the parse that runs
    std::exception_ptr m_refused;        ///< why the source ended early
    std::size_t m_bytesAtEvent = 0;
    bool m_inRoot = false;
    unsigned m_depth = 0;
    std::size_t m_nodes = 0;
};

} // namespace Veltrane::Quillmark::Tlx
