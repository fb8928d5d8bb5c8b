// Documents that parse themselves.

#include <tlx/Xml.h>

#include <mutex>
#include <sstream>
#include <stdexcept>

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/sax/HandlerBase.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <tlx/Log.h>

#include "XmlFailure.h"
#include "XmlParserLease.h"
#include "XmlSource.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* SOURCE = "../Xml";

/// Passes the parser's events to a document's object, except for those of skipped elements.
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

    // The objects decide which white space they ignore, not the document type.
    void ignorableWhitespace(const XMLCh* const chars, const XMLSize_t length) override
    {
        characters(chars, length);
    }

  private:
    /// Ends the parse at the current place when the object throws or refuses.
    template <class Call>
    void call(const Call& operation) const
    {
        const auto done = guardXml(operation);
        if (done && m_context.refusal().empty())
            return;
        const TlxString reason = done ? m_context.refusal() : done.error().reason;
        if (m_locator)
            refuseDocument(reason, *m_locator);
        throw std::runtime_error(reason.utf8());
    }

    XmlInterface& m_object;
    XmlObjParseContext& m_context;
    const xercesc::Locator* m_locator = nullptr;
};

/// Logs why a document cannot be parsed, and returns the text.
TlxString logFailure(const std::basic_string<XMLCh>& documentName, const XmlFailure& failure)
{
    std::ostringstream text;
    text << "Failed to parse the document " << TlxString::fromXmlCh(documentName) << ": line "
         << failure.line << ", column " << failure.column << ": " << failure.reason;
    TLX_LOG_AS(LoggerFactory::instance().getLogger(LOG_ORIGINATOR_PLATFORM), LOG_LEVEL_FAILURE,
               LogSeverity::Warning, "XmlDocumentInterface::parse", SOURCE, text.str());
    return text.str();
}

} // namespace

void initialiseXml()
{
    // The library is never terminated, because idle parsers of other threads live until those
    // threads end.
    static std::once_flag once;
    std::call_once(once, [] { xercesc::XMLPlatformUtils::Initialize(); });
}

XmlDocumentInterface::XmlDocumentInterface(const char* codePage, const char* documentName)
    : m_codePage(codePage ? codePage : ""), m_documentName(TlxString(documentName).toXmlCh())
{
    // The caller may now make an InputSource, which needs the library. If the library fails to
    // start, the parse fails.
    (void)guardXml(initialiseXml);
}

XmlDocumentInterface::~XmlDocumentInterface() = default;

XmlObjParseContext* XmlDocumentInterface::getObjParseContext(const XMLCh* name)
{
    return new XmlObjParseContext(name);
}

bool XmlDocumentInterface::parseBuffer(const std::string& text)
{
    bool parsed = false;
    const auto ran = guardXml([&] {
        initialiseXml();
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()),
                                          text.size(), xercesc::XMLUni::fgZeroLenString);
        source.setCopyBufToStream(false); // the text outlives the parse
        parsed = run(source).has_value();
    });
    if (!ran)
        logFailure(m_documentName, ran.error());
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
    const auto parsed = guardXml([&] {
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
    });
    if (!parsed)
        return tl::unexpected(logFailure(m_documentName, parsed.error()));
    return {};
}

} // namespace Veltrane::Quillmark::Tlx
