#pragma once
// Objects that read themselves from XML events and write themselves as XML.
//
// The parser (SAX1) reports events; an XmlInterface receives them together with a context that
// holds the state of this one parse. An object that contains others hands events of an inner
// element on to the inner object with a context of its own. The end of an element answers who goes
// on:
//
//     XML_COMPLETE (0)  the element and its object are complete
//     XML_INSIDE   (1)  more events belong to the element
//     XML_NOTHING  (2)  the element is over, but yields nothing
//
// An element that nobody knows is passed to XmlInterface::xmlStartElement, which skips it: until
// its end no event of it, nor of anything inside it, reaches any object.
//
// Every document is somebody else's input. Parsing reads no external entity and no DTD from
// outside, bounds entity expansion, depth and what is kept at a time, and answers a hostile
// document with false and a level-1 line; nothing is thrown out of it.

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

enum XmlEndResult
{
    XML_COMPLETE = 0,
    XML_INSIDE = 1,
    XML_NOTHING = 2
};

/// Elements nested deeper than this make a document unparsable.
constexpr unsigned XML_MAX_DEPTH = 256;
/// Entity references expanded in one document, at most.
constexpr unsigned XML_MAX_ENTITY_EXPANSIONS = 1000;
/// Bytes before the document's element, with its start tag. The parser keeps what a document type
/// declares in trees that take more than a hundred times the space.
constexpr std::size_t XML_MAX_PROLOG_BYTES = 1u << 20;
/// Bytes of one start tag, comment or other thing that the parser gathers before it tells of it. Of
/// text it tells every 2^20 characters, which as references have up to ten bytes each. (As the
/// parser reads in blocks, of this bound and the one above it a block more may pass.)
constexpr std::size_t XML_MAX_PIECE_BYTES = 12u << 20;
/// Different names of elements in one document; the parser keeps each. What a document type
/// declares counts apart.
constexpr std::size_t XML_MAX_ELEMENT_NAMES = 100000;
/// Characters (UTF-16 units) that one context collects as text.
constexpr std::size_t XML_MAX_TEXT = 16u << 20;
/// Elements of one document that are unknown or refused, where each of them is logged.
constexpr unsigned XML_MAX_FAULTS = 1000;

/// The state of parsing one element: its name, the text collected since it was last cleared, and
/// what all contexts of one parse share with their parents: whether an unknown element is being
/// skipped, and whether the parse is to end. Used by one thread.
class XmlObjParseContext
{
  public:
    /// @param parent the context of the enclosing element; null at the root. It must outlive this
    /// one.
    explicit XmlObjParseContext(const XMLCh* elementName,
                                const XmlObjParseContext* parent = nullptr);
    XmlObjParseContext(const XmlObjParseContext&) = delete;
    XmlObjParseContext& operator=(const XmlObjParseContext&) = delete;
    virtual ~XmlObjParseContext();

    /// Whether name is, to the letter, the name of the element that this context was made for.
    bool isEndTag(const XMLCh* name) const;

    /// Whether an element's name is tag, whatever the case of its letters.
    static bool cmptag(const XMLCh* name, const char* tag);
    /// Whether an element's name is tag to the letter.
    static bool isTag(const XMLCh* name, const char* tag);

    /// The text collected so far. It can be written again: the control characters that only XML 1.1
    /// lets in have become U+FFFD.
    TlxString text() const;
    /// What would exceed XML_MAX_TEXT is not appended, and ends the parse.
    void appendText(const XMLCh* chars, std::size_t length);
    void clearText();

    /// Skipping: begun by the default start-element handling; the parser's driver counts the nested
    /// elements. While an element is skipped the driver calls no object.
    bool isSkipping() const { return m_parse->skipDepth > 0; }
    void skipEnter() const { ++m_parse->skipDepth; }
    void skipLeave() const { --m_parse->skipDepth; }

    /// Has the driver end the parse after the present event, as a break of the document would; the
    /// first reason is the one that is logged.
    void refuse(const TlxString& reason) const;
    /// Why the parse is to end; empty when it is not.
    const TlxString& refusal() const { return m_parse->refusal; }
    /// To be called with every line that is logged about an element that is unknown or refused:
    /// more than XML_MAX_FAULTS end the parse, so that no document can fill the log.
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

/// Something that can be read from XML events and written as XML. The base collects text, skips
/// unknown elements and writes nothing.
class XmlInterface
{
  public:
    /// Text of the current element; may come in several calls.
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
    /// @param codePage the encoding of documents without a declaration; null for UTF-8.
    /// @param documentName the root element's name, handed to getObjParseContext.
    XmlDocumentInterface(const char* codePage, const char* documentName);
    ~XmlDocumentInterface() override;

    /// The context for the root element of a parse; the caller owns it. The base makes a plain one.
    virtual XmlObjParseContext* getObjParseContext(const XMLCh* name);

    /// Parses a document from memory, calling this object's operations. False when the text is not
    /// a well-formed document or exceeds a bound (the reason is logged at level 1); what the events
    /// did until then stays done.
    bool parseBuffer(const std::string& text);

    /// The same from a stream. A stream whose read fails counts as ended.
    bool parse(InputSource& source);
    /// The same, with the failure as a value: the text that was logged.
    [[nodiscard]] tl::expected<void, TlxString> parseOrExplain(InputSource& source);

  private:
    tl::expected<void, TlxString> run(const InputSource& source);
    std::string m_codePage;
    std::basic_string<XMLCh> m_documentName;
};

/// An attribute's value; empty when it is absent.
TlxString xmlAttribute(AttributeList& attributes, const char* name);

/// Brings the XML library up for this process; every operation here does so by itself. Safe to call
/// from any thread, any number of times.
void initialiseXml();

} // namespace Veltrane::Quillmark::Tlx
