// Fuzzes filters: the text that a person writes, and the documents with filters or descriptions.
// An accepted filter must survive its XML form. A refused one must have one error position.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

#include <FilterParameters.h>
#include <tlx/Log.h>
#include <tlx/Query.h>

#include "Fuzz.h"

namespace {

using namespace Veltrane::Quillmark::Tlx;
using namespace Veltrane::Quillmark::Tlx::DiscoverySvc;

/// Has every field. The name of the field decides its type.
struct Everything : QuerySource
{
    QueryValue valueOf(const std::string& field) const override
    {
        require(TlxQuery::isFieldName(field) || field.size() > QUERY_MAX_NAME);
        switch (field[0] % 4) {
        case 0:
            return QueryValue::text(field);
        case 1:
            return QueryValue::number(field.size());
        case 2:
            return QueryValue::flag(field.size() % 2 == 0);
        default:
            return {};
        }
    }
};

/// A document with a query description as its root.
class Description : public XmlDocumentInterface
{
  public:
    Description() : XmlDocumentInterface(nullptr, "Description") {}

    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override
    {
        if (m_context)
            return m_query->xmlStartElement(m_context.get(), name, attributes);
        TlxQuery* query = nullptr;
        m_context.reset(xmlCreateObject(name, attributes, context, query));
        m_query.reset(query);
    }
    void xmlCharacters(XmlObjParseContext*, const XMLCh* chars, unsigned long length) override
    {
        if (m_context)
            m_query->xmlCharacters(m_context.get(), chars, length);
    }
    int xmlEndElement(XmlObjParseContext*, const XMLCh* name) override
    {
        m_result = m_query->xmlEndElement(m_context.get(), name);
        return m_result;
    }

    AutoDereference<TlxQuery> m_query;
    int m_result = XML_INSIDE;

  private:
    std::unique_ptr<XmlObjParseContext> m_context;
};

template <class Document>
std::string written(const Document& document)
{
    std::ostringstream out;
    document.writeXml(out, XmlStr::XE_UTF8);
    return out.str();
}

void requireReadable(const TlxQuery& query)
{
    require(query.fields().size() <= QUERY_MAX_FIELDS);
    Description again;
    require(again.parseBuffer(written(query)));
    require(again.m_result == XML_COMPLETE && *again.m_query == query);
    TlxQuery merged;
    merged.merge(query);
    require(merged.fields() == query.fields());
}

void tryExpression(const std::string& text)
{
    TlxQuery query;
    if (!query.setQuery(text)) {
        require(query.isEmpty() && !query.mistake().text.empty());
        require(query.mistake().column >= 1 && query.mistake().column <= text.size() + 1);
        require(query.mistake().text.size() < 512);
        require(query.mistake().text.find_first_of("\r\n") == std::string::npos);
        return;
    }
    require(query.mistake() == QueryMistake{});
    const Everything item;
    TlxQuery opposite;
    if (!query.isEmpty() && opposite.setQuery("not (" + text + ")"))
        require(opposite.matches(item) != query.matches(item));
    requireReadable(query);
    const FilterParameters parameters(nullptr, text.c_str());
    const FilterParameters back(written(parameters).c_str());
    require(back.queryString() == parameters.queryString());
}

void tryParameters(const std::string& text)
{
    const FilterParameters parameters(text.c_str());
    const std::string once = written(parameters);
    if (once.empty()) {
        require(parameters.queryString().empty());
        return;
    }
    const FilterParameters back(once.c_str());
    require(back.queryString() == parameters.queryString());
    require((back.job() == nullptr) == (parameters.job() == nullptr));
    require(!back.job() || back.job()->arguments() == parameters.job()->arguments());
    TlxQuery query;
    require(parameters.setQuery(query) || query.isEmpty());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    dropLog();

    const std::string text(reinterpret_cast<const char*>(data), size);
    tryExpression(text);
    tryParameters(text);
    Description description;
    if (description.parseBuffer(text) && description.m_result == XML_COMPLETE)
        requireReadable(*description.m_query);
    return 0;
}
