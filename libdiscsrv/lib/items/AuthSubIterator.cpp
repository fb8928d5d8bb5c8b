// The researcher's iterators, and the outer part of the discovered-items document.

#include "AuthSubIterator.h"

#include <sstream>
#include <stdexcept>

#include "DiscLog.h"
#include "DiscoveredItemsContexts.h"
#include "DiscoverySetSource.h"
#include "FilterParameters.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../Researcher";
} // namespace

// The items of one discovery.

CollectionItemIterator::CollectionItemIterator(Authority* authority, Subject* subject,
                                               CollectionItemList* items, bool parsed)
    : m_authority(authority), m_subject(subject), m_items(items), m_parsed(parsed)
{
}

CollectionItemIterator::CollectionItemIterator(Authority* authority, Subject* subject,
                                               CollectionItemList* items,
                                               std::optional<ResearchFailure> failure)
    : m_authority(authority), m_subject(subject), m_items(items), m_parsed(!failure),
      m_failure(std::move(failure))
{
}

CollectionItemIterator::CollectionItemIterator(const CollectionItemIterator& other)
    : TLXRefCounted(other),
      m_authority(other.m_authority ? new Authority(*other.m_authority) : nullptr),
      m_subject(other.m_subject ? new Subject(*other.m_subject) : nullptr),
      m_items(new CollectionItemList(*other.m_items)), m_parsed(other.m_parsed),
      m_failure(other.m_failure), m_next(other.m_next)
{
}

CollectionItemIterator::~CollectionItemIterator() = default;

CollectionItem* CollectionItemIterator::getNextCollectionItem()
{
    DISC_TRACE("CollectionItemIterator::getNextCollectionItem");
    if (m_next == m_items->size())
        return nullptr;
    return AutoDereference<CollectionItem>((*m_items)[m_next++]).release();
}

// One discovery after the other.

AuthSubIterator::AuthSubIterator(DiscoveryIterator* discoveries)
    : XmlDocumentInterface(nullptr, TAG_DISCOVERED_ITEMS),
      m_discoveries(AutoDereference<DiscoveryIterator>::share(discoveries))
{
}

AuthSubIterator::~AuthSubIterator() = default;

CollectionItemIterator*
AuthSubIterator::getNextCollectionItemIterator(const FilterParameters* filter)
{
    DISC_TRACE("AuthSubIterator::getNextCollectionItemIterator");
    const AutoDereference<Discovery> discovery(m_discoveries ? m_discoveries->getNext() : nullptr);
    if (!discovery)
        return nullptr;
    std::unique_ptr<Authority> authority;
    if (discovery->getAuthority())
        authority = std::make_unique<Authority>(*discovery->getAuthority());
    std::unique_ptr<Subject> subject;
    if (discovery->getSubject())
        subject = std::make_unique<Subject>(*discovery->getSubject());
    auto items = std::make_unique<CollectionItemList>();
    m_items = items.get();
    const auto read = readDiscovery(discovery->getCollectionData(), filter);
    m_items = nullptr;
    std::optional<ResearchFailure> failure;
    if (!read) {
        DISC_WARN("Failed to parse discovery");
        failure = read.error();
        failure->subject = subject ? subject->getSubject().utf8() : "";
        failure->authority = authority ? authority->getName().utf8() : "";
    }
    return new CollectionItemIterator(authority.release(), subject.release(), items.release(),
                                      std::move(failure));
}

bool AuthSubIterator::parseDiscovery(CollectionData* data, const FilterParameters* filter)
{
    return readDiscovery(data, filter).has_value();
}

tl::expected<void, ResearchFailure> AuthSubIterator::readDiscovery(CollectionData* data,
                                                                   const FilterParameters* filter)
{
    DISC_TRACE("AuthSubIterator::parseDiscovery");
    const auto failure = [](ResearchProblem problem, const std::string& cause) {
        return tl::unexpected(ResearchFailure{problem, cause, {}, {}});
    };
    if (!data) {
        const char* const cause = "Invalid collection data pointer";
        DISC_WARN(cause);
        return failure(ResearchProblem::NO_DATA, cause);
    }
    std::ostringstream text;
    if (filter)
        filter->writeXml(text, XmlStr::XE_UTF8);
    if (!data->open(OM_READ, text.str().c_str())) {
        const std::string cause = "Failed to read collection data";
        DISC_WARN(cause);
        // The backend's own reason is more exact, but not every backend has one.
        return failure(ResearchProblem::NOT_OPENED,
                       data->getOpenFailure().empty() ? cause : data->getOpenFailure());
    }
    DiscoverySetInputSource source(*data, "sysid");
    const auto parsed = parseOrExplain(source);
    if (!parsed) {
        DISC_WARN("Failed to parse the discovery stream");
        return failure(ResearchProblem::NOT_PARSED, parsed.error().utf8());
    }
    return {};
}

// Reading one document.

XmlObjParseContext* AuthSubIterator::getObjParseContext(const XMLCh* name)
{
    DISC_TRACE("AuthSubIterator::getObjParseContext");
    return new DiscoverySetContext(name);
}

void AuthSubIterator::xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                                      AttributeList& attributes)
{
    DISC_TRACE("AuthSubIterator::xmlStartElement");
    auto* ctxt = dynamic_cast<DiscoverySetContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return;
    if (ctxt->isSkipping())
        return XmlInterface::xmlStartElement(ctxt, name, attributes);
    ctxt->clearText();
    const auto is = [name](const char* tag) { return XmlObjParseContext::cmptag(name, tag); };
    if (ctxt->m_nodes.empty()) {
        if (is(TAG_DISCOVERED_ITEMS))
            return ctxt->m_nodes.push_back(DiscoverySetContext::DiscoveredItems);
        if (is(TAG_FILTER_DATA))
            return ctxt->m_nodes.push_back(DiscoverySetContext::FilterData);
    } else if (ctxt->m_nodes.back() == DiscoverySetContext::DiscoveredItems) {
        if (is(TAG_DISCOVERED))
            return ctxt->startSub<DiscoveredItem>(name, attributes,
                                                  DiscoverySetContext::Discovered);
    } else if (ctxt->m_nodes.back() == DiscoverySetContext::FilterData) {
        if (is(TlxQuery::QUERY_DESCRIPTION_TAG))
            return ctxt->startSub<FilterItem>(name, attributes,
                                              DiscoverySetContext::QueryDescription);
    } else {
        bool ready = TLX_ASSERT(ctxt->m_subContext);
        ready = TLX_ASSERT(ctxt->m_subInterface) && ready;
        if (ready)
            ctxt->m_subInterface->xmlStartElement(ctxt->m_subContext.get(), name, attributes);
        return;
    }
    DISC_WARN("Ignoring Unknown Tag");
    ctxt->countFault();
    XmlInterface::xmlStartElement(ctxt, name, attributes);
}

void AuthSubIterator::xmlCharacters(XmlObjParseContext* context, const XMLCh* chars,
                                    unsigned long length)
{
    DISC_TRACE("AuthSubIterator::xmlCharacters");
    auto* ctxt = dynamic_cast<DiscoverySetContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return;
    if (!ctxt->m_subContext)
        XmlInterface::xmlCharacters(ctxt, chars, length);
    else if (TLX_ASSERT(ctxt->m_subInterface))
        ctxt->m_subInterface->xmlCharacters(ctxt->m_subContext.get(), chars, length);
}

int AuthSubIterator::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    DISC_TRACE("AuthSubIterator::xmlEndElement");
    auto* ctxt = dynamic_cast<DiscoverySetContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return XML_NOTHING;
    if (ctxt->m_nodes.empty()) {
        if (!TLX_ASSERT(ctxt->isEndTag(name)))
            ctxt->countFault();
        return XML_COMPLETE;
    }
    switch (ctxt->m_nodes.back()) {
    case DiscoverySetContext::DiscoveredItems:
    case DiscoverySetContext::FilterData:
        ctxt->m_nodes.pop_back();
        return XML_COMPLETE;
    case DiscoverySetContext::Discovered:
    case DiscoverySetContext::QueryDescription:
        return endItem(*ctxt, name);
    default:
        DISC_WARN("Ignoring Unknown Tag");
        ctxt->countFault();
        ctxt->m_nodes.pop_back();
        return XML_INSIDE;
    }
}

int AuthSubIterator::endItem(DiscoverySetContext& context, const XMLCh* name)
{
    DiscoverySetContext* const ctxt = &context;
    int result = XML_NOTHING;
    bool ready = TLX_ASSERT(ctxt->m_subContext);
    ready = TLX_ASSERT(ctxt->m_subInterface) && ready;
    if (ready)
        result = ctxt->m_subInterface->xmlEndElement(ctxt->m_subContext.get(), name);
    switch (result) {
    case XML_INSIDE:
        return XML_INSIDE;
    case XML_COMPLETE:
        keepItem(ctxt->m_subInterface);
        break;
    case XML_NOTHING:
        break;
    default:
        TLX_SHOULD_NOT_GET_HERE();
        return XML_INSIDE;
    }
    ctxt->clearSub();
    ctxt->m_nodes.pop_back();
    return result == XML_NOTHING ? XML_NOTHING : XML_INSIDE;
}

void AuthSubIterator::keepItem(const AutoDereference<CollectionItem>& item)
{
    if (!TLX_ASSERT(m_items))
        return;
    if (m_items->size() == MAX_COLLECTION_ITEMS) // the exception ends the parse, see tlx/Xml.h
        throw std::length_error("there are more than " + std::to_string(MAX_COLLECTION_ITEMS) +
                                " items");
    m_items->push_back(item);
}

std::ostream& AuthSubIterator::writeXml(std::ostream& out, XmlStr::Encoding) const
{
    return out;
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
