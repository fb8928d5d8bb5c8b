#pragma once
// Objects that read themselves from XML events and write themselves as XML.
//
// The parser (SAX1) reports events. An XmlInterface receives them, together with a context that
// holds the state of this parse. An object that contains other objects passes them the events of
// their elements, each with a context of its own. The result of xmlEndElement decides who receives
// the next event:
//
//     XML_COMPLETE (0)  the element and its object are complete
//     XML_INSIDE   (1)  more events belong to the element
//     XML_NOTHING  (2)  the element is over, but yields no object
//
// An object passes an unknown element to XmlInterface::xmlStartElement, which skips it: no object
// receives an event of this element or of its content.
//
// Every document is input from outside. The parser reads no external entity and no external DTD. It
// bounds entity expansion, depth, and what it keeps at a time. For a hostile document it returns
// false and logs a line at level 1. It throws nothing.

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>

#include <tl/expected.hpp>
#include <xercesc/sax/AttributeList.hpp>
#include <xercesc/util/XercesDefs.hpp>

#include <tlx/String.h>
#include <tlx/XmlStr.h>

XERCES_CPP_NAMESPACE_BEGIN
class InputSource;
XERCES_CPP_NAMESPACE_END

namespace Veltrane::Quillmark::Tlx {

using xercesc::AttributeList;
using xercesc::InputSource;

// Compat(end-results): plug-in parsers return these numbers.
enum XmlEndResult
{
    XML_COMPLETE = 0,
    XML_INSIDE = 1,
    XML_NOTHING = 2
};

/// The most elements inside one another.
constexpr unsigned XML_MAX_DEPTH = 256;
/// The most entity references that are expanded in one document.
constexpr unsigned XML_MAX_ENTITY_EXPANSIONS = 1000;
/// The most bytes before the root element and in its start tag. The parser keeps the declarations
/// of a document type in trees, which need more than a hundred times as much memory.
constexpr std::size_t XML_MAX_PROLOG_BYTES = 1u << 20;
/// The most bytes of one start tag, comment or other part that the parser collects before it
/// reports the part. It reports text every 2^20 characters, and a reference needs up to ten bytes
/// for one character. The parser reads in blocks, so it may accept one block more than this bound
/// and the bound above.
constexpr std::size_t XML_MAX_PIECE_BYTES = 12u << 20;
/// The most different names of elements in one document, because the parser keeps each. The names
/// that a document type declares count in addition.
constexpr std::size_t XML_MAX_ELEMENT_NAMES = 100000;
/// The most characters (UTF-16 units) that one context collects as text.
constexpr std::size_t XML_MAX_TEXT = 16u << 20;
/// The most unknown or refused elements in one document, because each of them is logged.
constexpr unsigned XML_MAX_FAULTS = 1000;

/// The state of parsing one element: its name, and the text collected since the last clearText. All
/// contexts of one parse share two more things: whether the parser is skipping an unknown element,
/// and whether the parse must end. One thread uses it.
class XmlObjParseContext
{
  public:
    /// @param parent the context of the enclosing element; null at the root. It must outlive this
    /// context.
    explicit XmlObjParseContext(const XMLCh* elementName,
                                const XmlObjParseContext* parent = nullptr);
    XmlObjParseContext(const XmlObjParseContext&) = delete;
    XmlObjParseContext& operator=(const XmlObjParseContext&) = delete;
    virtual ~XmlObjParseContext();

    /// Whether name is the name of this context's element, letter by letter.
    bool isEndTag(const XMLCh* name) const;

    /// Whether an element's name is tag, in any case of its letters.
    static bool cmptag(const XMLCh* name, const char* tag);
    /// Whether an element's name is tag, letter by letter.
    static bool isTag(const XMLCh* name, const char* tag);

    /// The text collected so far. Control characters that only XML 1.1 allows have become U+FFFD,
    /// so that the text can be written again.
    TlxString text() const;
    /// Appends to the text. A text that would exceed XML_MAX_TEXT ends the parse instead.
    void appendText(const XMLCh* chars, std::size_t length);
    void clearText();

    /// XmlInterface::xmlStartElement begins the skipping of an element. Then the parser's driver
    /// counts the elements inside it, and calls no object until its end.
    bool isSkipping() const { return m_parse->skipDepth > 0; }
    void skipEnter() const { ++m_parse->skipDepth; }
    void skipLeave() const { --m_parse->skipDepth; }

    /// Ends the parse after the current event, like a malformed document. Only the first reason is
    /// logged.
    void refuse(const TlxString& reason) const;
    /// Why the parse must end; empty while it continues.
    const TlxString& refusal() const { return m_parse->refusal; }
    /// Call it with every log line about an unknown or refused element. More than XML_MAX_FAULTS
    /// calls end the parse, so that no document can fill the log.
    void countFault() const;

  private:
    struct Parse
    {
        unsigned skipDepth = 0;
        unsigned faults = 0;
        TlxString refusal;
    };
    std::basic_string<XMLCh> m_elementName;
    std::basic_string<XMLCh> m_text;
    std::shared_ptr<Parse> m_parse;
};

/// An object that reads itself from XML events and writes itself as XML. The base collects text,
/// skips all elements and writes nothing.
class XmlInterface
{
  public:
    /// Text of the current element. One text may come in several calls.
    virtual void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                               unsigned long length);
    virtual void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                                 AttributeList& attributes);
    /// @return an XmlEndResult.
    virtual int xmlEndElement(XmlObjParseContext* context, const XMLCh* name);
    virtual std::ostream& writeXml(std::ostream& out, XmlStr::Encoding encoding) const;
    virtual ~XmlInterface();
};

/// A whole document that parses itself.
class XmlDocumentInterface : public XmlInterface
{
  public:
    /// @param codePage the encoding of documents that declare none; null for UTF-8.
    /// @param documentName the root element's name, for getObjParseContext.
    XmlDocumentInterface(const char* codePage, const char* documentName);
    ~XmlDocumentInterface() override;

    /// Makes the context for the root element. The caller owns it. The base makes a plain context.
    virtual XmlObjParseContext* getObjParseContext(const XMLCh* name);

    /// Parses a document from memory and calls this object's operations.
    /// @return false when the text is not a well-formed document or exceeds a bound. Logs the
    /// reason at level 1. The effects of the events until then stay.
    bool parseBuffer(const std::string& text);

    /// Parses a document from a stream. A failed read counts as the stream's end.
    bool parse(InputSource& source);
    /// The same, with the failure as a value: the text that was logged.
    [[nodiscard]] tl::expected<void, TlxString> parseOrExplain(InputSource& source);

  private:
    tl::expected<void, TlxString> run(const InputSource& source);
    std::string m_codePage;
    std::basic_string<XMLCh> m_documentName;
};

/// An attribute's value; empty without that attribute.
TlxString xmlAttribute(AttributeList& attributes, const char* name);

/// Starts the XML library in this process. Every operation here calls it by itself. Any thread may
/// call it, any number of times.
void initialiseXml();

} // namespace Veltrane::Quillmark::Tlx
