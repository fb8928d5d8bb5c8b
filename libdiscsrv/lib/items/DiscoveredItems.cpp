#include "DiscoveredItems.h"

#include <tlx/ForeignCode.h>

#include "DefaultExplorerDataParser.h"
#include "DiscLog.h"
#include "DiscoveredItemsContexts.h"
#include "ExplorerParsers.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscoveredItems";

// Compat(status-tag-case): peers write "STATUSMSG" inside items. The comparison ignores the case.
constexpr const char* TAG_STATUS = "StatusMsg";
constexpr const char* TAG_EXPLORER_DATA = "ExplorerData";
// Compat(item-tag-case): peers write "Discovered" and look for "DISCOVERED". Reading ignores the
// case.
constexpr const char* TAG_DISCOVERED_WRITTEN = "Discovered";
constexpr const char* ATTRIBUTE_NAME = "Name";

/// Calls the parser of a block. If the parser throws, it logs the exception with the parser's name
/// and returns false.
bool callParser(const ExplorerDataParser& parser, const DiscoveredDataContext& context,
                const char* operation, const std::function<void()>& call)
{
    // The default parser needs no guard, because it is not foreign code. It is also called most
    // often.
    if (dynamic_cast<const DefaultExplorerDataParser*>(&parser)) {
        call();
        return true;
    }
    if (callForeignCode(operation, "The parser of the data of " + context.m_explorerName.utf8(),
                        call))
        return true;
    context.countFault();
    return false;
}

} // namespace

CollectionItem::CollectionItem() : XmlDocumentInterface(nullptr, TAG_DISCOVERED) {}
CollectionItem::~CollectionItem() = default;

DiscoveredItem::DiscoveredItem(std::string name) : m_name(std::move(name)) {}
DiscoveredItem::~DiscoveredItem() = default;

ExplorerData* DiscoveredItem::getExplorerData() const
{
    return AutoDereference<ExplorerData>(m_explorerData).release();
}

XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                    const XmlObjParseContext* parent, DiscoveredItem*& item)
{
    auto context = std::make_unique<DiscoveredDataContext>(name, parent);
    item = new DiscoveredItem(xmlAttribute(attributes, ATTRIBUTE_NAME).utf8());
    return context.release();
}

XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList& attributes,
                                    const XmlObjParseContext* parent, FilterItem*& item)
{
    TlxQuery* query = nullptr;
    std::unique_ptr<XmlObjParseContext> context(
        Tlx::xmlCreateObject(name, attributes, parent, query));
    item = new FilterItem(query);
    return context.release();
}

// The description of a query.

FilterItem::FilterItem(TlxQuery* query) : m_query(query) {}
FilterItem::~FilterItem() = default;

void FilterItem::xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                                 AttributeList& attributes)
{
    if (TLX_ASSERT(m_query))
        m_query->xmlStartElement(context, name, attributes);
}

void FilterItem::xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                               unsigned long length)
{
    if (TLX_ASSERT(m_query))
        m_query->xmlCharacters(context, chars, length);
}

int FilterItem::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    return TLX_ASSERT(m_query) ? m_query->xmlEndElement(context, name) : int{XML_NOTHING};
}

std::ostream& FilterItem::writeXml(std::ostream& out, XmlStr::Encoding encoding) const
{
    return m_query ? m_query->writeXml(out, encoding) : out;
}

// Writing a discovered item.

std::ostream& DiscoveredItem::writeXml(std::ostream& out, XmlStr::Encoding encoding) const
{
    DISC_TRACE("DiscoveredItem::writeXml");
    out << '<' << TAG_DISCOVERED_WRITTEN;
    if (!m_name.empty())
        XmlStr::appendAttribute(out, ATTRIBUTE_NAME, m_name, encoding);
    out << '>';
    if (m_status)
        m_status->writeXml(out, encoding);
    if (m_policy)
        m_policy->writeXml(out, encoding);
    if (m_explorerData) {
        out << '<' << TAG_EXPLORER_DATA;
        XmlStr::appendAttribute(out, ATTRIBUTE_NAME, m_explorerName, encoding);
        out << '>';
        callForeignCode(LogScope::current(), "The data of " + m_explorerName.utf8(),
                        [&] { m_explorerData->writeXml(out, encoding); });
        XmlStr::appendEnd(out, TAG_EXPLORER_DATA);
    }
    return XmlStr::appendEnd(out, TAG_DISCOVERED_WRITTEN);
}

// Reading a discovered item.

void DiscoveredItem::xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                                     AttributeList& attributes)
{
    DISC_TRACE("DiscoveredItem::xmlStartElement");
    auto* ctxt = dynamic_cast<DiscoveredDataContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return;
    if (ctxt->isSkipping())
        return XmlInterface::xmlStartElement(ctxt, name, attributes);
    if (!ctxt->m_nodes.empty()) {
        bool ready = TLX_ASSERT(ctxt->m_subContext);
        ready = TLX_ASSERT(ctxt->m_subInterface) && ready;
        if (!ready)
            return;
        if (ctxt->m_nodes.back() == DiscoveredDataContext::ExplorerDataBlock)
            return startInBlock(*ctxt, name, attributes);
        return ctxt->m_subInterface->xmlStartElement(ctxt->m_subContext.get(), name, attributes);
    }
    ctxt->clearText();
    if (XmlObjParseContext::cmptag(name, TAG_STATUS)) {
        ctxt->startSub(name, attributes, ctxt->m_status, DiscoveredDataContext::StatusMessage);
    } else if (XmlObjParseContext::cmptag(name, QmkPolicy::TAG)) {
        ctxt->startSub(name, attributes, ctxt->m_policy, DiscoveredDataContext::Policy);
    } else if (XmlObjParseContext::cmptag(name, TAG_EXPLORER_DATA)) {
        startBlock(*ctxt, name, attributes);
    } else {
        DISC_WARN("Ignoring Unknown Tag");
        ctxt->countFault();
        XmlInterface::xmlStartElement(ctxt, name, attributes);
    }
}

void DiscoveredItem::startBlock(DiscoveredDataContext& context, const XMLCh* name,
                                AttributeList& attributes)
{
    DiscoveredDataContext* const ctxt = &context;
    ctxt->m_explorerName = xmlAttribute(attributes, ATTRIBUTE_NAME);
    ctxt->m_depth = 0;
    ctxt->m_blockFailed = false;
    m_explorerParser.reset(getExplorerParsers().find(ctxt->m_explorerName));
    const bool called =
        TLX_ASSERT(m_explorerParser) &&
        callParser(*m_explorerParser, *ctxt, "ExplorerDataParser::getParseContext", [&] {
            ctxt->m_subContext.reset(
                m_explorerParser->getParseContext(ctxt->m_explorerName, name, ctxt));
        });
    if (!called || !TLX_ASSERT(ctxt->m_subContext)) {
        m_explorerParser.reset();
        XmlInterface::xmlStartElement(ctxt, name, attributes);
        return;
    }
    ctxt->m_subInterface = m_explorerParser.get();
    ctxt->m_nodes.push_back(DiscoveredDataContext::ExplorerDataBlock);
}

void DiscoveredItem::startInBlock(DiscoveredDataContext& context, const XMLCh* name,
                                  AttributeList& attributes)
{
    if (!context.m_blockFailed)
        context.m_blockFailed =
            !callParser(*m_explorerParser, context, "ExplorerDataParser::xmlStartElement", [&] {
                m_explorerParser->xmlStartElement(context.m_subContext.get(), name, attributes);
            });
    if (!context.isSkipping()) // a skipped element gets no call at its end
        ++context.m_depth;
}

void DiscoveredItem::xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                                   unsigned long length)
{
    DISC_TRACE("DiscoveredItem::xmlCharacters");
    auto* ctxt = dynamic_cast<DiscoveredDataContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return;
    if (!ctxt->m_subContext)
        return XmlInterface::xmlCharacters(ctxt, chars, length);
    if (!TLX_ASSERT(ctxt->m_subInterface))
        return;
    if (ctxt->m_subInterface != m_explorerParser.get())
        return ctxt->m_subInterface->xmlCharacters(ctxt->m_subContext.get(), chars, length);
    if (!ctxt->m_blockFailed)
        ctxt->m_blockFailed =
            !callParser(*m_explorerParser, *ctxt, "ExplorerDataParser::xmlCharacters", [&] {
                m_explorerParser->xmlCharacters(ctxt->m_subContext.get(), chars, length);
            });
}

int DiscoveredItem::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    DISC_TRACE("DiscoveredItem::xmlEndElement");
    auto* ctxt = dynamic_cast<DiscoveredDataContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return XML_NOTHING;
    if (ctxt->m_nodes.empty()) {
        // A block that ended early, at an inner element of the block's name, also leads here. The
        // item is complete then, with the first part of the block.
        if (!TLX_ASSERT(ctxt->isEndTag(name)))
            ctxt->countFault();
        return XML_COMPLETE;
    }
    if (ctxt->m_nodes.back() > DiscoveredDataContext::ExplorerDataBlock) {
        DISC_WARN("Ignoring Unknown Tag");
        ctxt->countFault();
        ctxt->m_nodes.pop_back();
        return XML_INSIDE;
    }
    bool ready = TLX_ASSERT(ctxt->m_subContext);
    ready = TLX_ASSERT(ctxt->m_subInterface) && ready;
    if (!ready) {
        endSub(*ctxt);
        return XML_INSIDE;
    }
    const bool inBlock = ctxt->m_nodes.back() == DiscoveredDataContext::ExplorerDataBlock;
    const int result = inBlock
                           ? endInBlock(*ctxt, name)
                           : ctxt->m_subInterface->xmlEndElement(ctxt->m_subContext.get(), name);
    switch (result) {
    case XML_INSIDE:
        return XML_INSIDE;
    case XML_COMPLETE:
        takeSub(*ctxt);
        break;
    case XML_NOTHING:
        break;
    default:
        TLX_SHOULD_NOT_GET_HERE();
        return XML_INSIDE;
    }
    endSub(*ctxt);
    return XML_INSIDE;
}

/// Returns the parser's result if it is valid here. A block ends at its end tag at the latest, for
/// any result of its parser.
int DiscoveredItem::endInBlock(DiscoveredDataContext& context, const XMLCh* name)
{
    const bool blockEnds = context.m_depth == 0;
    if (!blockEnds)
        --context.m_depth;
    int result = XML_INSIDE;
    if (!context.m_blockFailed)
        context.m_blockFailed =
            !callParser(*m_explorerParser, context, "ExplorerDataParser::xmlEndElement", [&] {
                result = m_explorerParser->xmlEndElement(context.m_subContext.get(), name);
            });
    if (context.m_blockFailed)
        return blockEnds ? XML_NOTHING : XML_INSIDE;
    if (blockEnds && result != XML_COMPLETE && result != XML_NOTHING) {
        TLX_SHOULD_NOT_GET_HERE();
        return XML_NOTHING;
    }
    return result;
}

/// Keeps the object that is now complete.
void DiscoveredItem::takeSub(DiscoveredDataContext& context)
{
    switch (context.m_nodes.back()) {
    case DiscoveredDataContext::StatusMessage:
        m_status = context.m_status;
        break;
    case DiscoveredDataContext::Policy:
        m_policy = context.m_policy;
        break;
    default:
        if (!callParser(*m_explorerParser, context, "ExplorerDataParser::getExplorerData", [&] {
                m_explorerData.reset(m_explorerParser->getExplorerData(context.m_subContext.get()));
            }))
            return;
        m_explorerName = m_explorerData ? context.m_explorerName : TlxString();
    }
}

void DiscoveredItem::endSub(DiscoveredDataContext& context)
{
    context.m_subContext.reset(); // before the parser: one library has the code of both
    context.m_subInterface = nullptr;
    context.m_status.reset();
    context.m_policy.reset();
    m_explorerParser.reset();
    context.m_nodes.pop_back();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
