#pragma once
// Queries that describe fields, and their XML.

#include <cstddef>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tlx/Query.h>
#include <tlx/Xml.h>

namespace QmTest {

namespace Tlx = Veltrane::Quillmark::Tlx;

inline Tlx::TlxQuery described(const std::vector<Tlx::QueryField>& fields)
{
    Tlx::TlxQuery query;
    for (const Tlx::QueryField& field : fields)
        EXPECT_TRUE(query.addField(field)) << field.name;
    return query;
}

inline const std::vector<Tlx::QueryField> DISK = {
    {"fstype", Tlx::QF_TEXT, "kind of file system", {"ext4", "xfs"}},
    {"size", Tlx::QF_BYTES, "how much it can hold"},
    {"full", Tlx::QF_NUMBER},
    {"readonly", Tlx::QF_FLAG, "", {"true", "false"}}};

/// The texts "v3", "v4" and so on.
inline std::vector<Tlx::TlxString> numbered(std::size_t first, std::size_t count)
{
    std::vector<Tlx::TlxString> result;
    for (std::size_t i = first; i < first + count; ++i)
        result.emplace_back("v" + std::to_string(i));
    return result;
}

/// The XML that a query writes.
inline std::string written(const Tlx::TlxQuery& query,
                           Tlx::XmlStr::Encoding encoding = Tlx::XmlStr::XE_UTF8)
{
    std::ostringstream out;
    EXPECT_EQ(&query.writeXml(out, encoding), &out);
    return out.str();
}

/// A document that contains query descriptions.
class QueryHolder : public Tlx::XmlDocumentInterface
{
  public:
    QueryHolder() : Tlx::XmlDocumentInterface(nullptr, "Holder") {}

    void xmlStartElement(Tlx::XmlObjParseContext* context, const XMLCh* name,
                         Tlx::AttributeList& attributes) override
    {
        if (m_context) {
            m_current->xmlStartElement(m_context.get(), name, attributes);
        } else if (Tlx::XmlObjParseContext::isTag(name, Tlx::TlxQuery::QUERY_DESCRIPTION_TAG)) {
            Tlx::TlxQuery* query = nullptr;
            m_context.reset(xmlCreateObject(name, attributes, context, query));
            m_current.reset(query);
        }
    }
    void xmlCharacters(Tlx::XmlObjParseContext*, const XMLCh* chars, unsigned long length) override
    {
        if (m_context)
            m_current->xmlCharacters(m_context.get(), chars, length);
    }
    int xmlEndElement(Tlx::XmlObjParseContext*, const XMLCh* name) override
    {
        if (!m_context)
            return Tlx::XML_COMPLETE;
        m_result = m_current->xmlEndElement(m_context.get(), name);
        if (m_result == Tlx::XML_INSIDE)
            return Tlx::XML_INSIDE;
        m_context.reset();
        m_query = m_current;
        return Tlx::XML_INSIDE;
    }

    std::unique_ptr<Tlx::XmlObjParseContext> m_context;
    Tlx::AutoDereference<Tlx::TlxQuery> m_current;
    Tlx::AutoDereference<Tlx::TlxQuery> m_query;
    int m_result = -1;
};

/// The query in a text. Expects this result of its end element.
inline Tlx::AutoDereference<Tlx::TlxQuery> read(const std::string& text,
                                                int result = Tlx::XML_COMPLETE)
{
    QueryHolder holder;
    EXPECT_TRUE(holder.parseBuffer("<Holder>" + text + "</Holder>"));
    EXPECT_EQ(holder.m_result, result) << text;
    EXPECT_TRUE(holder.m_query);
    return holder.m_query;
}

} // namespace QmTest
