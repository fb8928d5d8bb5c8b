// Fuzzes XML documents, read as events and as a tree. The readers must not throw and must not use
// memory without a limit. A skipped element must reach no object.

#include <cstddef>
#include <cstdint>
#include <string>

#include <tlx/DomHandler.h>
#include <tlx/Log.h>
#include <tlx/Xml.h>

#include "Fuzz.h"

namespace {

using namespace Veltrane::Quillmark::Tlx;

/// Skips the elements "skip". Checks that each start has its end.
class Document : public XmlDocumentInterface
{
  public:
    Document() : XmlDocumentInterface(nullptr, "Document") {}

    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override
    {
        require(!context->isSkipping());
        m_priority = xmlAttribute(attributes, "Priority").size();
        context->clearText();
        if (XmlObjParseContext::cmptag(name, "skip")) {
            XmlDocumentInterface::xmlStartElement(context, name, attributes);
            return;
        }
        ++m_depth;
        require(m_depth <= XML_MAX_DEPTH);
    }
    void xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override
    {
        require(!context->isSkipping());
        XmlDocumentInterface::xmlCharacters(context, chars, length);
    }
    int xmlEndElement(XmlObjParseContext* context, const XMLCh*) override
    {
        require(!context->isSkipping());
        require(m_depth > 0);
        --m_depth;
        m_text = context->text();
        return XML_INSIDE;
    }
    unsigned m_depth = 0;

  private:
    std::size_t m_priority = 0;
    TlxString m_text;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    dropLog();

    const std::string text(reinterpret_cast<const char*>(data), size);
    Document document;
    if (document.parseBuffer(text))
        require(document.m_depth == 0);

    TlxDOMHandler handler(text.c_str());
    const int parsed = handler.parse();
    require(parsed >= 0);
    std::uint32_t priority = 0;
    const int found = handler.getValue("Priority", priority);
    require(parsed == 0 || found != 0);
    TlxString name;
    TlxObjTime time;
    handler.getValue("ServiceName", name);
    handler.getValue("ExpiresTime", time);
    return 0;
}
