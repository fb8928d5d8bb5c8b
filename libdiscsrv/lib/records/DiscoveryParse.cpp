// Reads a metadata document into a record.

#include <tlx/ValueConverter.h>

#include "DiscData.h"
#include "DiscDataContexts.h"
#include "DiscDataNames.h"
#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../DiscData";

/// Reads an enumerator from its decimal text. False if the text is not a number up to last.
template <class Enum>
bool readEnumerator(const TlxString& text, Enum last, Enum& out)
{
    std::uint32_t value = 0;
    if (!fromText(text, value) || value > static_cast<std::uint32_t>(last))
        return false;
    out = static_cast<Enum>(value);
    return true;
}

} // namespace

XmlObjParseContext* Discovery::getObjParseContext(const XMLCh* name)
{
    DISC_TRACE("Discovery::getObjParseContext");
    return new DiscoveryDocContext(name);
}

void Discovery::xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                                AttributeList& attributes)
{
    DISC_TRACE("Discovery::xmlStartElement");
    auto* ctxt = dynamic_cast<DiscoveryDocContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return;
    if (ctxt->inDescription()) {
        if (TLX_ASSERT(ctxt->m_subInterface) && TLX_ASSERT(ctxt->m_subContext))
            ctxt->m_subInterface->xmlStartElement(ctxt->m_subContext.get(), name, attributes);
        return;
    }
    ctxt->clearText();
    const auto is = [name](const char* tag) { return XmlObjParseContext::isTag(name, tag); };
    if (ctxt->m_nodes.empty()) {
        if (ctxt->isEndTag(name))
            return ctxt->m_nodes.push_back(DiscoveryDocContext::Document);
    } else if (ctxt->m_nodes.back() == DiscoveryDocContext::Attributes) {
        if (is(TAG_DISCOVERY_TIME))
            return ctxt->m_nodes.push_back(DiscoveryDocContext::DiscoveryTime);
        if (is(TAG_EXPIRES_TIME))
            return ctxt->m_nodes.push_back(DiscoveryDocContext::ExpiresTime);
        if (is(TAG_SIGNATURE))
            return ctxt->m_nodes.push_back(DiscoveryDocContext::Signature);
        if (is(PRIORITY))
            return ctxt->m_nodes.push_back(DiscoveryDocContext::Priority);
    } else if (ctxt->m_nodes.back() == DiscoveryDocContext::Document) {
        if (is(TAG_DISCOVERY_ATTRIBUTES))
            return startAttributes(*ctxt, attributes);
        if (is(TAG_DISCOVERY_AUTHORITY))
            return startAuthority(*ctxt, name, attributes);
        if (is(TAG_DISCOVERY_SUBJECT))
            return startSubject(*ctxt, name, attributes);
    }
    XmlInterface::xmlStartElement(ctxt, name, attributes); // skips an unknown element whole
}

void Discovery::startAttributes(DiscoveryDocContext& context, AttributeList& attributes)
{
    const TlxString typeText = xmlAttribute(attributes, ATTRIBUTE_TYPE);
    const TlxString storageText = xmlAttribute(attributes, ATTRIBUTE_STORAGE);
    CollectionType type = CT_CONFIGURATION;
    CollectionStorage storage = CS_LOCALONLY;
    if (!readEnumerator(typeText, CT_POINT_IN_TIME, type))
        refuseDocument("collection type", typeText);
    if (!readEnumerator(storageText, CS_CENTRALREPOSITORY, storage))
        refuseDocument("collection storage", storageText);
    setAttributes(new CollectionAttributes(type, storage, TlxObjTime(), TlxObjTime(), 0));
    context.m_nodes.push_back(DiscoveryDocContext::Attributes);
}

void Discovery::startAuthority(DiscoveryDocContext& context, const XMLCh* name,
                               AttributeList& attributes)
{
    if (!TLX_ASSERT_AS(!context.m_subContext, "!ctxt->m_subContext"))
        context.m_subContext.reset();
    const TlxString authorityName = xmlAttribute(attributes, ATTRIBUTE_NAME);
    const TlxString typeText = xmlAttribute(attributes, ATTRIBUTE_TYPE);
    if (authorityName.empty()) {
        DISC_WARN("Authority name not specified");
        XmlInterface::xmlStartElement(&context, name, attributes);
        return;
    }
    AuthorityType type = AT_ANYANDALL;
    if (!readEnumerator(typeText, AT_REMOTEPULL, type))
        refuseDocument("authority type", typeText);
    auto authority = std::make_unique<Authority>(authorityName.utf8(), type);
    context.m_subInterface = authority.get();
    setAuthority(authority.release());
    context.m_subContext = std::make_unique<DescriptionContext>(name, &context);
    context.m_nodes.push_back(DiscoveryDocContext::AuthorityNode);
}

void Discovery::startSubject(DiscoveryDocContext& context, const XMLCh* name,
                             AttributeList& attributes)
{
    if (!TLX_ASSERT_AS(!context.m_subContext, "!ctxt->m_subContext"))
        context.m_subContext.reset();
    const TlxString subjectName = xmlAttribute(attributes, ATTRIBUTE_NAME);
    if (subjectName.empty()) {
        DISC_WARN("Subject name not specified");
        XmlInterface::xmlStartElement(&context, name, attributes);
        return;
    }
    auto subject = std::make_unique<Subject>(subjectName.utf8());
    context.m_subInterface = subject.get();
    setSubject(subject.release());
    context.m_subContext = std::make_unique<DescriptionContext>(name, &context);
    context.m_nodes.push_back(DiscoveryDocContext::SubjectNode);
}

void Discovery::refuseDocument(const char* what, const TlxString& value)
{
    DISC_WARN("Unknown " << what << " \"" << value << "\"");
    m_documentRefused = true;
}

void Discovery::xmlCharacters(XmlObjParseContext* context, const XMLCh* chars, unsigned long length)
{
    DISC_TRACE("Discovery::xmlCharacters");
    auto* ctxt = dynamic_cast<DiscoveryDocContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return;
    if (!ctxt->inDescription())
        XmlInterface::xmlCharacters(ctxt, chars, length);
    else if (TLX_ASSERT(ctxt->m_subInterface))
        ctxt->m_subInterface->xmlCharacters(ctxt->m_subContext.get(), chars, length);
}

int Discovery::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    DISC_TRACE("Discovery::xmlEndElement");
    auto* ctxt = dynamic_cast<DiscoveryDocContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return XML_COMPLETE;
    if (ctxt->m_nodes.empty()) {
        TLX_SHOULD_NOT_GET_HERE();
        return XML_COMPLETE;
    }
    if (ctxt->inDescription()) {
        endDescription(*ctxt, name);
        return XML_INSIDE;
    }
    endValue(*ctxt);
    ctxt->m_nodes.pop_back();
    return ctxt->m_nodes.empty() ? XML_COMPLETE : XML_INSIDE;
}

void Discovery::endDescription(DiscoveryDocContext& context, const XMLCh* name)
{
    DiscoveryDocContext* const ctxt = &context;
    int result = XML_NOTHING;
    bool ready = TLX_ASSERT(ctxt->m_subInterface);
    ready = TLX_ASSERT(ctxt->m_subContext) && ready;
    if (ready)
        result = ctxt->m_subInterface->xmlEndElement(ctxt->m_subContext.get(), name);
    if (result == XML_INSIDE)
        return;
    if (result != XML_COMPLETE && result != XML_NOTHING)
        TLX_SHOULD_NOT_GET_HERE();
    ctxt->m_subContext.reset();
    ctxt->m_subInterface = nullptr;
    ctxt->m_nodes.pop_back();
}

void Discovery::endValue(DiscoveryDocContext& context)
{
    const auto node = context.m_nodes.back();
    if (node == DiscoveryDocContext::Document || node == DiscoveryDocContext::Attributes)
        return;
    if (node < DiscoveryDocContext::DiscoveryTime || node > DiscoveryDocContext::Priority) {
        TLX_SHOULD_NOT_GET_HERE();
        return;
    }
    // Values are inside "DiscoveryAttributes", and its start tag created the attributes.
    if (!TLX_ASSERT(getAttributes()))
        return;
    // Compat(log-convert): log readers know the messages below, with a blank at the end and without
    // the value.
    const TlxString text = context.text();
    TlxObjTime time;
    std::uint32_t priority = 0;
    switch (node) {
    case DiscoveryDocContext::DiscoveryTime:
        if (fromText(text, time))
            m_attributes->setDiscoveryTime(time);
        else
            DISC_WARN("Unable to convert discovery time ");
        break;
    case DiscoveryDocContext::ExpiresTime:
        if (fromText(text, time))
            m_attributes->setExpiresTime(time);
        else
            DISC_WARN("Unable to convert expires time ");
        break;
    case DiscoveryDocContext::Signature:
        m_attributes->setSignature(text);
        break;
    default:
        if (fromText(text, priority))
            m_attributes->setPriority(priority);
        else
            DISC_WARN("Unable to convert priority ");
    }
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
