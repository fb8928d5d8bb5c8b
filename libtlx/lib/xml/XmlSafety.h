#pragma once
// How every document is parsed: SAX and DOM share the limits, the way failures come out, and the
// keeping of parsers.

#include <cstddef>
#include <exception>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <xercesc/framework/XMLNotationDecl.hpp>
#include <xercesc/internal/XMLScanner.hpp>
#include <xercesc/parsers/SAXParser.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/HandlerBase.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/SecurityManager.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>
#include <xercesc/validators/DTD/DTDAttDef.hpp>
#include <xercesc/validators/DTD/DTDElementDecl.hpp>
#include <xercesc/validators/DTD/DTDEntityDecl.hpp>

#include <tlx/String.h>
#include <tlx/Xml.h>

#include "XmlSource.h"

namespace Veltrane::Quillmark::Tlx {

/// The longest text of an entity, in UTF-16 units. Together with the bound on expansions it bounds
/// what the entities of one document can grow to.
constexpr std::size_t XML_MAX_ENTITY_TEXT = 4096;

/// Why a document was refused. Line and column are 0 when the parser knew no place.
struct XmlFailure
{
    XMLFileLoc line = 0;
    XMLFileLoc column = 0;
    TlxString reason;
};

/// What the exception being handled says. To be called inside a catch block only.
XmlFailure currentFailure();

/// Runs a parse. Whatever it throws ends here: false, with the failure told.
template <class Parse>
bool guardXml(const Parse& parse, XmlFailure& failure)
{
    try {
        parse();
        return true;
    } catch (...) {
        failure = currentFailure();
        return false;
    }
}

/// Ends the parse: throws what guardXml turns into a failure at the locator's place.
[[noreturn]] void refuseDocument(const TlxString& reason, const xercesc::Locator& locator);

/// A parser of the XML library (SAXParser, XercesDOMParser) with the safety that other people's
/// documents need. Inside a document it knows no way to another file, and a document type
/// definition may hold nothing through which a small text grows large or slow: entity expansions
/// are counted and their texts short; parameter entities, whose expansions the library does not
/// count, declarations of attributes, which every element pays for, and notations, which nobody
/// needs, are refused. Nor can a large text make it keep much more than what it tells of: see the
/// bounds in tlx/Xml.h.
template <class Parser>
class SafeXmlParser : public Parser
{
  public:
    SafeXmlParser()
    {
        Parser::useScanner(xercesc::XMLUni::fgDGXMLScanner); // the one that knows no schema at all
        Parser::setValidationScheme(Parser::Val_Never);
        Parser::setDoNamespaces(false);
        Parser::setDoSchema(false);
        Parser::setLoadSchema(false);
        Parser::setLoadExternalDTD(false);
        Parser::setSkipDTDValidation(true);
        // The resolver answers nothing, and then the library must not look for itself.
        Parser::setEntityResolver(&m_handlers);
        Parser::setDisableDefaultEntityResolution(true);
        Parser::setErrorHandler(&m_handlers); // which throws what is fatal and ignores the rest
        Parser::setExitOnFirstFatalError(true);
        Parser::setCalculateSrcOfs(false);
        watchDeclarations(*this);
        m_security.setEntityExpansionLimit(XML_MAX_ENTITY_EXPANSIONS);
        Parser::setSecurityManager(&m_security);
    }

    /// Elements, attributes and entity declarations in one document, at most; unlimited unless
    /// told.
    void setNodeLimit(std::size_t limit) { m_nodeLimit = limit; }

    /// Parses the document, within the bounds; to be used in place of parse.
    void read(XmlSource& source)
    {
        m_source = &source;
        m_bytesAtEvent = 0;
        m_inRoot = false;
        m_refused = nullptr;
        source.beforeReads([this] { return mayReadOn(); });
        try {
            Parser::parse(source);
        } catch (...) {
            if (!m_refused) // otherwise it only says that the document breaks off
                throw;
        }
        m_source = nullptr;
        if (m_refused)
            std::rethrow_exception(m_refused);
    }

    void startDocument() override
    {
        m_depth = 0;
        m_nodes = 0;
        m_otherVersion = false;
        Parser::startDocument();
    }

    /// The library takes the version of a document that declares none for that of the document
    /// before it, and so would read it by other rules.
    bool hasReadOtherVersion() const { return m_otherVersion; }

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
        if (m_depth >= XML_MAX_DEPTH)
            refuse("elements are nested deeper than " + std::to_string(XML_MAX_DEPTH));
        countNodes(1 + attributeCount);
        checkNames(declaration);
        m_inRoot = true;
        noteEvent();
        const unsigned outer = m_depth++;
        Parser::startElement(declaration, uriId, prefix, attributes, attributeCount, isEmpty,
                             isRoot);
        // Of the library's two parsers only one reports the end of an empty element to endElement.
        if (isEmpty)
            m_depth = outer;
    }

    void endElement(const xercesc::XMLElementDecl& declaration, const unsigned int uriId,
                    const bool isRoot, const XMLCh* const prefix) override
    {
        --m_depth;
        noteEvent();
        Parser::endElement(declaration, uriId, isRoot, prefix);
    }

    void docCharacters(const XMLCh* const chars, const XMLSize_t length,
                       const bool isCData) override
    {
        noteEvent();
        Parser::docCharacters(chars, length, isCData);
    }

    void ignorableWhitespace(const XMLCh* const chars, const XMLSize_t length,
                             const bool isCData) override
    {
        noteEvent();
        Parser::ignorableWhitespace(chars, length, isCData);
    }

    void docComment(const XMLCh* const text) override
    {
        noteEvent();
        Parser::docComment(text);
    }

    void docPI(const XMLCh* const target, const XMLCh* const data) override
    {
        noteEvent();
        Parser::docPI(target, data);
    }

    void elementDecl(const xercesc::DTDElementDecl& declaration, const bool isIgnored) override
    {
        checkNames(declaration);
        Parser::elementDecl(declaration, isIgnored);
    }

    void entityDecl(const xercesc::DTDEntityDecl& declaration, const bool isParameterEntity,
                    const bool isIgnored) override
    {
        if (isParameterEntity)
            refuse("the parameter entity " + nameOf(declaration.getName()) + " is not allowed");
        if (declaration.getValueLen() > XML_MAX_ENTITY_TEXT)
            refuse("the text of the entity " + nameOf(declaration.getName()) + " is longer than " +
                   std::to_string(XML_MAX_ENTITY_TEXT));
        countNodes(1);
        Parser::entityDecl(declaration, isParameterEntity, isIgnored);
    }

    void attDef(const xercesc::DTDElementDecl&, const xercesc::DTDAttDef& attribute,
                const bool) override
    {
        refuse("the declaration of the attribute " + nameOf(attribute.getFullName()) +
               " is not allowed");
    }

    void notationDecl(const xercesc::XMLNotationDecl& declaration, const bool) override
    {
        refuse("the notation " + nameOf(declaration.getName()) + " is not allowed");
    }

  private:
    /// A name for a log line, which a document must not be able to fill.
    static std::string nameOf(const XMLCh* name)
    {
        constexpr std::size_t longest = 64;
        return TlxString::fromXmlCh(std::basic_string_view<XMLCh>(name).substr(0, longest)).utf8();
    }

    void countNodes(std::size_t more)
    {
        m_nodes += more;
        if (m_nodes > m_nodeLimit)
            refuse("there are more than " + std::to_string(m_nodeLimit) +
                   " elements, attributes and entities");
    }

    /// The library numbers the names in the order in which they come.
    void checkNames(const xercesc::XMLElementDecl& declaration) const
    {
        if (declaration.getId() > XML_MAX_ELEMENT_NAMES)
            refuse("there are more than " + std::to_string(XML_MAX_ELEMENT_NAMES) +
                   " different names of elements");
    }

    /// What was read until here, but for what is left of the last block, is kept no longer.
    void noteEvent() { m_bytesAtEvent = m_source->bytesRead(); }

    /// Asked before the parser reads on, when it is done with nearly all that it has. Thrown from
    /// there a refusal would make it leave behind the trees that it builds, so the document breaks
    /// off and the refusal comes afterwards.
    bool mayReadOn() noexcept
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

    void checkBytes() const
    {
        const std::size_t bytes = m_source->bytesRead();
        if (!m_inRoot && bytes > XML_MAX_PROLOG_BYTES)
            refuse("there are more than " + std::to_string(XML_MAX_PROLOG_BYTES) +
                   " bytes before the document's element");
        if (bytes - m_bytesAtEvent > XML_MAX_PIECE_BYTES)
            refuse("a tag, a comment or a piece of text has more than " +
                   std::to_string(XML_MAX_PIECE_BYTES) + " bytes");
    }

    [[noreturn]] void refuse(const std::string& reason) const
    {
        refuseDocument(reason, *scanner(Parser::getScanner()).getLocator());
    }
    // SAXParser reports declarations only to one who seems to want them; the other always does.
    void watchDeclarations(xercesc::SAXParser& parser) { parser.setDTDHandler(&m_handlers); }
    void watchDeclarations(xercesc::XercesDOMParser&) {}

    // The two parsers hand out their scanner differently.
    static const xercesc::XMLScanner& scanner(const xercesc::XMLScanner& it) { return it; }
    static const xercesc::XMLScanner& scanner(const xercesc::XMLScanner* it) { return *it; }

    const XmlSource* m_source = nullptr; ///< of the parse that runs
    std::size_t m_bytesAtEvent = 0;
    std::exception_ptr m_refused; ///< why the document was broken off
    bool m_inRoot = false;
    unsigned m_depth = 0;
    std::size_t m_nodes = 0;
    bool m_otherVersion = false;
    std::size_t m_nodeLimit = std::numeric_limits<std::size_t>::max();
    xercesc::HandlerBase m_handlers;
    xercesc::SecurityManager m_security;
};

/// A parser lent to one parse. Making a parser costs far more than parsing a small document, so
/// each thread keeps the idle ones of its own; a parse inside a parse finds its outer one gone and
/// takes another. A parser goes back only when keep was called: one that failed is dropped.
template <class Parser>
class XmlParserLease
{
  public:
    XmlParserLease()
    {
        auto& parsers = idle();
        if (parsers.empty()) {
            m_parser = std::make_unique<SafeXmlParser<Parser>>();
        } else {
            m_parser = std::move(parsers.back());
            parsers.pop_back();
        }
    }
    XmlParserLease(const XmlParserLease&) = delete;
    XmlParserLease& operator=(const XmlParserLease&) = delete;

    SafeXmlParser<Parser>* operator->() const { return m_parser.get(); }

    /// Gives the parser back after a parse that succeeded.
    /// @param documentBytes the size of what was parsed: a parser's buffers grow with its
    /// documents, and one that read a large one is not kept; nor is one that read a document of
    /// another version than 1.0.
    void keep(std::size_t documentBytes)
    {
        constexpr std::size_t largestKept = 1u << 20;
        constexpr std::size_t mostIdle = 4;
        auto& parsers = idle();
        if (documentBytes <= largestKept && parsers.size() < mostIdle &&
            !m_parser->hasReadOtherVersion())
            parsers.push_back(std::move(m_parser));
    }

  private:
    using Pool = std::vector<std::unique_ptr<SafeXmlParser<Parser>>>;
    static Pool& idle()
    {
        static thread_local Pool pool;
        return pool;
    }
    std::unique_ptr<SafeXmlParser<Parser>> m_parser;
};

} // namespace Veltrane::Quillmark::Tlx
