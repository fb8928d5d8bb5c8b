#include <tlx/Xml.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/sax/HandlerBase.hpp>

#include <tlx/Log.h>

#include "XmlSafety.h"
#include "XmlSource.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* SOURCE = "../Xml";

XMLCh lower(XMLCh letter)
{
    return letter >= 'A' && letter <= 'Z' ? static_cast<XMLCh>(letter + ('a' - 'A')) : letter;
}

/// What a document of XML 1.0, the version written here, cannot carry. Surrogates come in pairs.
bool isNoXmlCharacter(XMLCh c)
{
    return (c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0xFFFE || c == 0xFFFF;
}

/// Hands the parser's events to a document's object, and keeps from it what is skipped.
class Driver : public xercesc::HandlerBase
{
  public:
    Driver(XmlInterface& object, XmlObjParseContext& context) : m_object(object), m_context(context)
    {
    }

    void setDocumentLocator(const xercesc::Locator* const locator) override { m_locator = locator; }

    void startElement(const XMLCh* const name, AttributeList& attributes) override
    {
        if (m_context.isSkipping())
            m_context.skipEnter();
        else
            call([&] { m_object.xmlStartElement(&m_context, name, attributes); });
    }

    void endElement(const XMLCh* const name) override
    {
        if (m_context.isSkipping())
            m_context.skipLeave();
        else
            call([&] { m_object.xmlEndElement(&m_context, name); });
    }

    void characters(const XMLCh* const chars, const XMLSize_t length) override
    {
        if (!m_context.isSkipping())
            call([&] { m_object.xmlCharacters(&m_context, chars, length); });
    }

    // Which white space can be ignored is the objects' matter, not the document type's.
    void ignorableWhitespace(const XMLCh* const chars, const XMLSize_t length) override
    {
        characters(chars, length);
    }

  private:
    /// What an object throws or refuses ends the parse, at the place where the document is.
    template <class Call>
    void call(const Call& operation) const
    {
        XmlFailure failure;
        if (guardXml(operation, failure)) {
            if (m_context.refusal().empty())
                return;
            failure.reason = m_context.refusal();
        }
        if (m_locator)
            refuseDocument(failure.reason, *m_locator);
        throw std::runtime_error(failure.reason.utf8());
    }

    XmlInterface& m_object;
    XmlObjParseContext& m_context;
    const xercesc::Locator* m_locator = nullptr;
};

/// Logs why a document cannot be parsed, and answers the text.
TlxString logFailure(const std::basic_string<XMLCh>& documentName, const XmlFailure& failure)
{
    std::ostringstream text;
    text << "Failed to parse the document " << TlxString::fromXmlCh(documentName) << ": line "
         << failure.line << ", column " << failure.column << ": " << failure.reason;
    TLX_LOG(LoggerFactory::instance().getLogger(LOG_ORIGINATOR_PLATFORM), LOG_LEVEL_FAILURE,
            "XmlDocumentInterface::parse", SOURCE, text.str());
    return text.str();
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
    while (*name && *tag && lower(*name) == lower(static_cast<unsigned char>(*tag))) {
        ++name;
        ++tag;
    }
    return *name == 0 && *tag == 0;
}

bool XmlObjParseContext::isTag(const XMLCh* name, const char* tag)
{
    return name && tag && TlxString(tag).toXmlCh() == name;
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
    // Once for an element, however many objects hand it down to here.
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

XmlDocumentInterface::XmlDocumentInterface(const char* codePage, const char* documentName)
    : m_codePage(codePage ? codePage : ""), m_documentName(TlxString(documentName).toXmlCh())
{
    // So that a caller can make an InputSource, which needs the library, right after its document.
    // A library that does not come up fails the parse.
    XmlFailure ignored;
    guardXml(initialiseXml, ignored);
}

XmlDocumentInterface::~XmlDocumentInterface() = default;

XmlObjParseContext* XmlDocumentInterface::getObjParseContext(const XMLCh* name)
{
    return new XmlObjParseContext(name);
}

bool XmlDocumentInterface::parseBuffer(const std::string& text)
{
    XmlFailure failure;
    bool parsed = false;
    const bool ran = guardXml(
        [&] {
            initialiseXml();
            xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()),
                                              text.size(), xercesc::XMLUni::fgZeroLenString);
            source.setCopyBufToStream(false); // the text outlives the parse
            parsed = run(source).has_value();
        },
        failure);
    if (!ran)
        logFailure(m_documentName, failure);
    return parsed;
}

bool XmlDocumentInterface::parse(InputSource& source)
{
    return run(source).has_value();
}

tl::expected<void, TlxString> XmlDocumentInterface::parseOrExplain(InputSource& source)
{
    return run(source);
}

tl::expected<void, TlxString> XmlDocumentInterface::run(const InputSource& source)
{
    XmlFailure failure;
    const bool parsed = guardXml(
        [&] {
            initialiseXml();
            const std::unique_ptr<XmlObjParseContext> context(
                getObjParseContext(m_documentName.c_str()));
            if (!context)
                throw std::runtime_error("the document's object gave no context");
            XmlSource wellBehaved(source, m_codePage);
            Driver driver(*this, *context);
            XmlParserLease<xercesc::SAXParser> parser;
            parser->setDocumentHandler(&driver);
            parser->read(wellBehaved);
            parser->setDocumentHandler(nullptr);
            parser.keep(wellBehaved.bytesRead());
        },
        failure);
    if (!parsed)
        return tl::unexpected(logFailure(m_documentName, failure));
    return {};
}

TlxString xmlAttribute(AttributeList& attributes, const char* name)
{
    return TlxString::fromXmlCh(attributes.getValue(TlxString(name).toXmlCh().c_str()));
}

} // namespace Veltrane::Quillmark::Tlx
