#pragma once
// An item, and queries about it.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include <tlx/Query.h>

namespace QmTest {

using Veltrane::Quillmark::Tlx::QuerySource;
using Veltrane::Quillmark::Tlx::QueryValue;
using Veltrane::Quillmark::Tlx::TlxQuery;

/// An item with given values. It counts the requests for them.
class Item : public QuerySource
{
  public:
    QueryValue valueOf(const std::string& field) const override
    {
        ++m_asked;
        const auto found = m_values.find(field);
        return found == m_values.end() ? QueryValue() : found->second;
    }
    std::map<std::string, QueryValue> m_values;
    mutable std::size_t m_asked = 0;
};

inline Item disk()
{
    Item item;
    item.m_values = {{"fstype", QueryValue::text("ext4")},
                     {"mount", QueryValue::text("/home/caf\xC3\xA9")},
                     {"label", QueryValue::text("a \"b\" 'c' \\d")},
                     {"empty", QueryValue::text("")},
                     {"host", QueryValue::text("123")},
                     {"answer", QueryValue::text("true")},
                     {"size", QueryValue::number(std::uint64_t{20} << 30)},
                     {"used", QueryValue::number(0)},
                     {"huge", QueryValue::number(UINT64_MAX)},
                     {"readonly", QueryValue::flag(false)},
                     {"local", QueryValue::flag(true)}};
    return item;
}

/// Whether the text is a query that disk() matches. Expects that it is a query.
inline bool matches(const std::string& text)
{
    TlxQuery query;
    EXPECT_TRUE(query.setQuery(text)) << text << ": " << query.mistake().toText();
    return query.matches(disk());
}

/// The mistake in a text. Expects that it has one.
inline std::string mistake(const std::string& text)
{
    TlxQuery query;
    EXPECT_FALSE(query.setQuery(text)) << text;
    EXPECT_TRUE(query.isEmpty());
    return query.mistake().toText();
}

} // namespace QmTest
