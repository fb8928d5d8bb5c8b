// Reads the content of a subject or an authority, which is an optional status message.

#include "DiscData.h"
#include "DiscDataContexts.h"
#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscData";
} // namespace

void Description::xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                                  AttributeList& attributes)
{
    DISC_TRACE("Description::xmlStartElement");
    auto* ctxt = dynamic_cast<DescriptionContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return;
    if (!ctxt->m_nodes.empty()) {
        if (TLX_ASSERT(ctxt->m_subInterface) && TLX_ASSERT(ctxt->m_subContext))
            ctxt->m_subInterface->xmlStartElement(ctxt->m_subContext.get(), name, attributes);
        return;
    }
    ctxt->clearText();
    if (!XmlObjParseContext::isTag(name, StatusMsg::TAG)) {
        XmlInterface::xmlStartElement(ctxt, name, attributes);
        return;
    }
    (void)TLX_ASSERT(!ctxt->m_subContext);
    ctxt->startSub<StatusMsg>(name, attributes, DescriptionContext::StatusMessage);
}

void Description::xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                                unsigned long length)
{
    DISC_TRACE("Description::xmlCharacters");
    auto* ctxt = dynamic_cast<DescriptionContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return;
    if (ctxt->m_subContext && ctxt->m_subInterface)
        ctxt->m_subInterface->xmlCharacters(ctxt->m_subContext.get(), chars, length);
    else
        XmlInterface::xmlCharacters(ctxt, chars, length);
}

int Description::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    DISC_TRACE("Description::xmlEndElement");
    auto* ctxt = dynamic_cast<DescriptionContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return XML_COMPLETE;
    if (ctxt->m_nodes.empty()) {
        (void)TLX_ASSERT(ctxt->isEndTag(name));
        return XML_COMPLETE;
    }
    if (!TLX_ASSERT(ctxt->m_subInterface) || !TLX_ASSERT(ctxt->m_subContext)) {
        ctxt->m_nodes.pop_back();
        return XML_INSIDE;
    }
    switch (ctxt->m_subInterface->xmlEndElement(ctxt->m_subContext.get(), name)) {
    case XML_INSIDE:
        return XML_INSIDE;
    case XML_COMPLETE:
        m_statusMsg.refObject(ctxt->m_subInterface.get());
        break;
    case XML_NOTHING:
        break;
    default:
        TLX_SHOULD_NOT_GET_HERE();
        return XML_INSIDE;
    }
    ctxt->clearSub();
    ctxt->m_nodes.pop_back();
    return XML_INSIDE;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
