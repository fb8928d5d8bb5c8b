#pragma once
// A parser of the XML library that is safe with documents of other hosts.

#include <cstddef>

#include <xercesc/framework/XMLNotationDecl.hpp>
#include <xercesc/internal/XMLScanner.hpp>
#include <xercesc/parsers/SAXParser.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/HandlerBase.hpp>
#include <xercesc/util/SecurityManager.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>
#include <xercesc/validators/DTD/DTDAttDef.hpp>
#include <xercesc/validators/DTD/DTDElementDecl.hpp>
#include <xercesc/validators/DTD/DTDEntityDecl.hpp>

#include <tlx/Xml.h>

#include "XmlBounds.h"
#include "XmlSource.h"

namespace Veltrane::Quillmark::Tlx {

/// SAXParser or XercesDOMParser, made safe. It opens no other file. XmlBounds limits what it keeps.
///
/// A document type definition must not let a small text grow large or slow. Entity expansions are
/// counted, and the texts of entities are short. The parser refuses
///   - parameter entities, because the library does not count their expansions;
///   - declarations of attributes, because every element pays for them;
///   - notations, because nobody needs them.
template <class Parser>
class SafeXmlParser : public Parser
{
  public:
    SafeXmlParser()
    {
        Parser::useScanner(xercesc::XMLUni::fgDGXMLScanner); // knows no schema at all
        Parser::setValidationScheme(Parser::Val_Never);
        Parser::setDoNamespaces(false);
        Parser::setDoSchema(false);
        Parser::setLoadSchema(false);
        Parser::setLoadExternalDTD(false);
        Parser::setSkipDTDValidation(true);
        // The resolver finds nothing. Then the library must not search by itself.
        Parser::setEntityResolver(&m_handlers);
        Parser::setDisableDefaultEntityResolution(true);
        Parser::setErrorHandler(&m_handlers); // throws fatal errors, ignores the rest
        Parser::setExitOnFirstFatalError(true);
        Parser::setCalculateSrcOfs(false);
        watchDeclarations(*this);
        m_security.setEntityExpansionLimit(XML_MAX_ENTITY_EXPANSIONS);
        Parser::setSecurityManager(&m_security);
        m_bounds.setPlace(*scanner(Parser::getScanner()).getLocator());
    }

    /// See XmlBounds.
    void setNodeLimit(std::size_t limit) { m_bounds.setNodeLimit(limit); }

    /// Parses the document within the bounds. Use it instead of parse. Throws what guardXml turns
    /// into a failure.
    void read(XmlSource& source)
    {
        m_otherVersion = false;
        m_bounds.begin(source);
        try {
            Parser::parse(source);
        } catch (...) {
            if (!m_bounds.hasBrokenOff())
                throw;
        }
        m_bounds.end();
    }

    /// Whether the last document had another version than 1.0. The library keeps that version. It
    /// would use its rules for the next document without a declared version.
    bool hasReadOtherVersion() const { return m_otherVersion; }

    // The events of the library.

    void XMLDecl(const XMLCh* const version, const XMLCh* const encoding,
                 const XMLCh* const standalone, const XMLCh* const actualEncoding) override
    {
        m_otherVersion = !xercesc::XMLString::equals(version, xercesc::XMLUni::fgVersion1_0);
        Parser::XMLDecl(version, encoding, standalone, actualEncoding);
    }

    void startElement(const xercesc::XMLElementDecl& declaration, const unsigned int uriId,
                      const XMLCh* const prefix,
                      const xercesc::RefVectorOf<xercesc::XMLAttr>& attributes,
                      const XMLSize_t attributeCount, const bool isEmpty,
                      const bool isRoot) override
    {
        const unsigned outer = m_bounds.depth();
        m_bounds.enterElement(declaration, attributeCount);
        Parser::startElement(declaration, uriId, prefix, attributes, attributeCount, isEmpty,
                             isRoot);
        // Only one of the library's two parsers calls endElement for an empty element.
        if (isEmpty)
            m_bounds.setDepth(outer);
    }

    void endElement(const xercesc::XMLElementDecl& declaration, const unsigned int uriId,
                    const bool isRoot, const XMLCh* const prefix) override
    {
        m_bounds.leaveElement();
        Parser::endElement(declaration, uriId, isRoot, prefix);
    }

    void docCharacters(const XMLCh* const chars, const XMLSize_t length,
                       const bool isCData) override
    {
        m_bounds.noteEvent();
        Parser::docCharacters(chars, length, isCData);
    }

    void ignorableWhitespace(const XMLCh* const chars, const XMLSize_t length,
                             const bool isCData) override
    {
        m_bounds.noteEvent();
        Parser::ignorableWhitespace(chars, length, isCData);
    }

    void docComment(const XMLCh* const text) override
    {
        m_bounds.noteEvent();
        Parser::docComment(text);
    }

    void docPI(const XMLCh* const target, const XMLCh* const data) override
    {
        m_bounds.noteEvent();
        Parser::docPI(target, data);
    }

    void elementDecl(const xercesc::DTDElementDecl& declaration, const bool isIgnored) override
    {
        m_bounds.declareElement(declaration);
        Parser::elementDecl(declaration, isIgnored);
    }

    void entityDecl(const xercesc::DTDEntityDecl& declaration, const bool isParameterEntity,
                    const bool isIgnored) override
    {
        m_bounds.declareEntity(declaration, isParameterEntity);
        Parser::entityDecl(declaration, isParameterEntity, isIgnored);
    }

    void attDef(const xercesc::DTDElementDecl&, const xercesc::DTDAttDef& attribute,
                const bool) override
    {
        m_bounds.forbid("the declaration of the attribute", attribute.getFullName());
    }

    void notationDecl(const xercesc::XMLNotationDecl& declaration, const bool) override
    {
        m_bounds.forbid("the notation", declaration.getName());
    }

  private:
    // SAXParser reports declarations only with a handler for them; XercesDOMParser always does.
    void watchDeclarations(xercesc::SAXParser& parser) { parser.setDTDHandler(&m_handlers); }
    void watchDeclarations(xercesc::XercesDOMParser&) {}

    // One of the two parsers returns a reference, the other one a pointer.
    static const xercesc::XMLScanner& scanner(const xercesc::XMLScanner& it) { return it; }
    static const xercesc::XMLScanner& scanner(const xercesc::XMLScanner* it) { return *it; }

    XmlBounds m_bounds;
    bool m_otherVersion = false;
    xercesc::HandlerBase m_handlers;
    xercesc::SecurityManager m_security;
};

} // namespace Veltrane::Quillmark::Tlx
