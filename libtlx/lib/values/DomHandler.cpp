#include <tlx/DomHandler.h>

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMNodeList.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>

#include <tlx/ValueConverter.h>

#include "XmlFailure.h"
#include "XmlParserLease.h"
#include "XmlSource.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

/// The most elements, attributes and entities of a document. Documents here are small. The time to
/// build the library's tree grows with the square of the number of different names.
constexpr std::size_t LARGEST_DOCUMENT = 10000;

} // namespace

bool DataDescription::store(const TlxString& text) const
{
    struct Store
    {
        const TlxString& text;
        bool operator()(TlxString* target) const
        {
            *target = text;
            return true;
        }
        bool operator()(std::uint32_t* target) const { return fromText(text, *target); }
        bool operator()(std::int32_t* target) const { return fromText(text, *target); }
        bool operator()(TlxObjTime* target) const { return fromText(text, *target); }
    };
    return std::visit(Store{text}, m_target);
}

struct TlxDOMHandler::Document
{
    explicit Document(xercesc::DOMDocument* adopted) : dom(adopted) {}
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;
    ~Document() { dom->release(); }
    xercesc::DOMDocument* const dom;
};

TlxDOMHandler::TlxDOMHandler(const char* text) : m_text(text ? text : "") {}

TlxDOMHandler::~TlxDOMHandler() = default;

int TlxDOMHandler::parse()
{
    m_document.reset();
    const auto parsed = guardXml([this] {
        initialiseXml();
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(m_text.data()),
                                          m_text.size(), xercesc::XMLUni::fgZeroLenString);
        source.setCopyBufToStream(false);
        XmlParserLease<xercesc::XercesDOMParser> parser;
        parser->setNodeLimit(LARGEST_DOCUMENT);
        parser->setCreateEntityReferenceNodes(false);
        parser->setCreateCommentNodes(false);
        XmlSource wellBehaved(source, "");
        parser->read(wellBehaved);
        m_document = std::make_unique<Document>(parser->adoptDocument());
        parser.keep(m_text.size());
    });
    return parsed ? 0 : 1;
}

int TlxDOMHandler::getValue(const char* elementName, const DataDescription& target) const
{
    constexpr int found = 0;
    constexpr int absent = 1;
    constexpr int otherType = 2;
    if (!m_document || !elementName)
        return absent;
    int result = absent;
    // An element that cannot be read counts as absent.
    (void)guardXml([&] {
        const auto name = TlxString(elementName).toXmlCh();
        const auto* elements = m_document->dom->getElementsByTagName(name.c_str());
        const auto* first = elements->item(0);
        if (!first)
            return;
        const TlxString text = TlxString::fromXmlCh(first->getTextContent());
        result = target.store(text) ? found : otherType;
    });
    return result;
}

} // namespace Veltrane::Quillmark::Tlx
