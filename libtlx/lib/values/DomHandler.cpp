#include <tlx/DomHandler.h>

#include <limits>
#include <map>
#include <vector>

#include <xercesc/framework/MemBufInputSource.hpp>

#include <tlx/ValueConverter.h>

#include "XmlFailure.h"
#include "XmlParserLease.h"
#include "XmlSource.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

/// The most elements, attributes and entities of a document. Documents here are small.
constexpr std::size_t LARGEST_DOCUMENT = 10000;
constexpr std::size_t UNLIMITED = std::numeric_limits<std::size_t>::max();

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

/// Collects the text of a document, and where in it the first element of each name begins and ends.
/// So one pass needs memory for one copy of the text, and no tree.
struct TlxDOMHandler::Document : xercesc::HandlerBase
{
    struct Element
    {
        std::size_t begin = 0;
        std::size_t end = 0;
    };
    std::basic_string<XMLCh> text;
    std::map<std::basic_string<XMLCh>, Element, std::less<>> elements;

    void startElement(const XMLCh* const name, xercesc::AttributeList&) override
    {
        const auto [element, isFirst] = elements.try_emplace(name);
        if (isFirst)
            element->second.begin = text.size();
        open.push_back(isFirst ? &element->second : nullptr);
    }
    void endElement(const XMLCh* const) override
    {
        if (open.back())
            open.back()->end = text.size();
        open.pop_back();
    }
    void characters(const XMLCh* const chars, const XMLSize_t length) override
    {
        text.append(chars, length);
    }

  private:
    std::vector<Element*> open; ///< null for an element that is not the first of its name
};

TlxDOMHandler::TlxDOMHandler(const char* text) : m_text(text ? text : "") {}

TlxDOMHandler::~TlxDOMHandler() = default;

int TlxDOMHandler::parse()
{
    m_document.reset();
    auto document = std::make_unique<Document>();
    const auto parsed = guardXml([&] {
        initialiseXml();
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(m_text.data()),
                                          m_text.size(), xercesc::XMLUni::fgZeroLenString);
        source.setCopyBufToStream(false);
        XmlParserLease<xercesc::SAXParser> parser;
        parser->setNodeLimit(LARGEST_DOCUMENT);
        parser->setDocumentHandler(document.get());
        XmlSource wellBehaved(source, "");
        parser->read(wellBehaved);
        parser->setDocumentHandler(nullptr);
        parser->setNodeLimit(UNLIMITED); // the next user of this parser sets no limit
        parser.keep(m_text.size());
    });
    if (!parsed)
        return 1;
    m_document = std::move(document);
    return 0;
}

int TlxDOMHandler::getValue(const char* elementName, const DataDescription& target) const
{
    constexpr int found = 0;
    constexpr int absent = 1;
    constexpr int otherType = 2;
    if (!m_document || !elementName)
        return absent;
    const auto element = m_document->elements.find(TlxString(elementName).toXmlCh());
    if (element == m_document->elements.end())
        return absent;
    const auto [begin, end] = element->second;
    const TlxString text = TlxString::fromXmlCh(
        std::basic_string_view<XMLCh>(m_document->text).substr(begin, end - begin));
    return target.store(text) ? found : otherType;
}

} // namespace Veltrane::Quillmark::Tlx
