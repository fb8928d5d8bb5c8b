// The XML form of queries.

#include <tlx/Query.h>

#include <set>

#include <tlx/Assert.h>

#include "PlatformLog.h"
#include "QueryLosses.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../QueryXml";

constexpr const char* TAG_QUERY = "Query";
constexpr const char* TAG_FIELD = "Field";
constexpr const char* TAG_DESCRIPTION = "Description";
constexpr const char* TAG_VALUE = "Value";
constexpr const char* ATTRIBUTE_NAME = "Name";
constexpr const char* ATTRIBUTE_TYPE = "Type";

/// The parts that were read so far. The query takes them at the end of its element.
class QueryContext : public XmlObjParseContext
{
  public:
    enum Node
    {
        Root,
        Query,
        Field,
        Description,
        Value
    };

    using XmlObjParseContext::XmlObjParseContext;

    Node m_node = Root;
    TlxString m_query;
    QueryField m_field;           ///< being read
    std::set<TlxString> m_values; ///< the different values of m_field
    TlxQuery m_described;         ///< takes each field at its end, so its bounds limit the memory
    QueryLosses m_losses;
};

/// A type that is not known here counts as text, because every value has a text form.
QueryFieldType typeFromText(const TlxString& text)
{
    for (const QueryFieldType type : {QF_NUMBER, QF_BYTES, QF_FLAG})
        if (text == TlxString(toText(type)))
            return type;
    return QF_TEXT;
}

/// Begins a child element. @return false when the element has no such child.
bool startNode(QueryContext& context, const XMLCh* name, AttributeList& attributes)
{
    const auto is = [name](const char* tag) { return XmlObjParseContext::cmptag(name, tag); };
    switch (context.m_node) {
    case QueryContext::Root:
        if (is(TAG_QUERY)) {
            context.m_node = QueryContext::Query;
            return true;
        }
        if (!is(TAG_FIELD))
            return false;
        context.m_node = QueryContext::Field;
        context.m_field = {xmlAttribute(attributes, ATTRIBUTE_NAME),
                           typeFromText(xmlAttribute(attributes, ATTRIBUTE_TYPE))};
        context.m_values.clear();
        return true;
    case QueryContext::Field:
        if (is(TAG_DESCRIPTION))
            context.m_node = QueryContext::Description;
        else if (is(TAG_VALUE))
            context.m_node = QueryContext::Value;
        return context.m_node != QueryContext::Field;
    default:
        return false;
    }
}

/// Too many values become "any value". An incomplete list would be wrong, because a filter for a
/// missing value would look like a mistake.
void endField(QueryContext& context)
{
    QueryField& field = context.m_field;
    const bool isOpened = field.values.size() > QUERY_MAX_VALUES;
    if (isOpened)
        field.values.clear();
    if (const auto done = context.m_described.addFieldOrReason(field); !done)
        context.m_losses.addField(field, done.error());
    else if (isOpened)
        context.m_losses.addOpened(field);
}

/// Takes the content of a child element. The element around it goes on.
void endNode(QueryContext& context)
{
    switch (context.m_node) {
    case QueryContext::Query:
        context.m_query = context.text();
        context.m_node = QueryContext::Root;
        break;
    case QueryContext::Field:
        endField(context);
        context.m_node = QueryContext::Root;
        break;
    case QueryContext::Description:
        context.m_field.description = context.text();
        context.m_node = QueryContext::Field;
        break;
    case QueryContext::Value:
        // Keep one value above the bound. It shows that the field has too many values.
        if (context.m_values.size() <= QUERY_MAX_VALUES &&
            context.m_values.insert(context.text()).second)
            context.m_field.values.push_back(context.text());
        context.m_node = QueryContext::Field;
        break;
    case QueryContext::Root:
        break;
    }
    context.clearText();
}

void writeField(std::ostream& out, const QueryField& field, XmlStr::Encoding encoding)
{
    out << '<' << TAG_FIELD;
    XmlStr::appendAttribute(out, ATTRIBUTE_NAME, field.name, encoding);
    XmlStr::appendAttribute(out, ATTRIBUTE_TYPE, toText(field.type), encoding);
    out << '>';
    if (!field.description.empty())
        XmlStr::appendElement(out, TAG_DESCRIPTION, field.description, encoding);
    for (const TlxString& value : field.values)
        XmlStr::appendElement(out, TAG_VALUE, value, encoding);
    XmlStr::appendEnd(out, TAG_FIELD);
}

} // namespace

XmlObjParseContext* xmlCreateObject(const XMLCh* name, AttributeList&,
                                    const XmlObjParseContext* parent, TlxQuery*& query)
{
    auto context = std::make_unique<QueryContext>(name, parent);
    query = new TlxQuery(0);
    return context.release();
}

std::ostream& TlxQuery::writeXml(std::ostream& out, XmlStr::Encoding encoding) const
{
    XmlStr::appendStart(out, QUERY_DESCRIPTION_TAG);
    if (!m_query.empty())
        XmlStr::appendElement(out, TAG_QUERY, m_query, encoding);
    for (const QueryField& field : m_fields)
        writeField(out, field, encoding);
    return XmlStr::appendEnd(out, QUERY_DESCRIPTION_TAG);
}

void TlxQuery::userOperation(const XMLCh*, AttributeList&) {}

void TlxQuery::xmlCharacters(XmlObjParseContext* context, const XMLCh* chars, unsigned long length)
{
    XmlInterface::xmlCharacters(context, chars, length);
}

void TlxQuery::xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                               AttributeList& attributes)
{
    auto* ctxt = dynamic_cast<QueryContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return;
    if (ctxt->isSkipping()) {
        XmlInterface::xmlStartElement(ctxt, name, attributes);
        return;
    }
    // The text before and after a skipped element belongs together.
    if (startNode(*ctxt, name, attributes)) {
        ctxt->clearText();
        return;
    }
    userOperation(name, attributes);
    XmlInterface::xmlStartElement(ctxt, name, attributes); // skips it with its content
}

int TlxQuery::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    auto* ctxt = dynamic_cast<QueryContext*>(context);
    if (!TLX_ASSERT(ctxt))
        return XML_NOTHING;
    if (ctxt->m_node != QueryContext::Root) {
        endNode(*ctxt);
        return XML_INSIDE;
    }
    if (!TLX_ASSERT(ctxt->isEndTag(name)))
        return XML_NOTHING;
    if (!setQuery(ctxt->m_query)) {
        PLATFORM_WARN(
            "TlxQuery::xmlEndElement",
            "Refused a query description, because its query is wrong: " << m_mistake.toText());
        ctxt->countFault();
        return XML_NOTHING;
    }
    addFields(ctxt->m_described.fields(), ctxt->m_losses);
    if (ctxt->m_losses.any()) {
        // One line for any number of losses.
        ctxt->m_losses.log("TlxQuery::xmlEndElement");
        ctxt->countFault();
    }
    return XML_COMPLETE;
}

} // namespace Veltrane::Quillmark::Tlx
