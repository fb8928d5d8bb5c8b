#include <tlx/Query.h>

#include <algorithm>
#include <iterator>
#include <set>

#include "QueryExpression.h"
#include "QueryLosses.h"
#include "QueryParser.h"
#include "QueryWords.h"
#include "XmlCharacter.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

TlxString carryable(const TlxString& text)
{
    std::string result;
    for (std::string_view rest = text.utf8(); !rest.empty();) {
        const std::size_t length = carryableLength(rest);
        result += rest.substr(0, length);
        rest.remove_prefix(length);
        if (rest.empty())
            break;
        result += REPLACEMENT_UTF8;
        rest.remove_prefix(std::max<std::size_t>(utf8Character(rest), 1));
    }
    return result;
}

/// The field with only the characters that XML can contain, and each value once.
QueryField carryable(const QueryField& field)
{
    QueryField result{field.name, field.type, carryable(field.description), {}};
    result.values.reserve(field.values.size()); // the views stay
    std::set<std::string_view> seen;
    for (const TlxString& value : field.values) {
        result.values.push_back(carryable(value));
        if (!seen.insert(result.values.back().utf8()).second)
            result.values.pop_back();
    }
    return result;
}

/// Fast for different names, because other hosts may send many fields: most names differ in length
/// or in the last letter.
bool isSameName(const TlxString& a, const TlxString& b)
{
    return a.size() == b.size() &&
           (a.empty() || ((a.utf8().back() ^ b.utf8().back()) & ~0x20) == 0) &&
           compareIgnoringCase(a, b) == 0;
}

/// Why a field cannot be added; empty when it can.
std::string problemOf(const QueryField& field)
{
    const std::string bytes = " bytes";
    if (field.name.size() > QUERY_MAX_NAME)
        return "its name has more than " + std::to_string(QUERY_MAX_NAME) + bytes;
    if (!TlxQuery::isFieldName(field.name.utf8()))
        return "its name is not a field name";
    if (field.description.size() > QUERY_MAX_TEXT)
        return "its description has more than " + std::to_string(QUERY_MAX_TEXT) + bytes;
    if (field.values.size() > QUERY_MAX_VALUES)
        return "it has more than " + std::to_string(QUERY_MAX_VALUES) + " values";
    for (const TlxString& value : field.values)
        if (value.size() > QUERY_MAX_TEXT)
            return "a value of it has more than " + std::to_string(QUERY_MAX_TEXT) + bytes;
    return {};
}

QueryFieldType mergedType(QueryFieldType a, QueryFieldType b)
{
    const auto isNumeric = [](QueryFieldType type) {
        return type == QF_NUMBER || type == QF_BYTES;
    };
    if (a == b)
        return a;
    return isNumeric(a) && isNumeric(b) ? QF_NUMBER : QF_TEXT;
}

/// Most hosts list the same values in the same order. Then this copies nothing.
void mergeValues(std::vector<TlxString>& values, const std::vector<TlxString>& others)
{
    if (values.empty() || others.empty()) {
        values.clear();
        return;
    }
    const auto other =
        std::mismatch(values.begin(), values.end(), others.begin(), others.end()).second;
    if (other == others.end())
        return;
    std::set<std::string_view> known;
    for (const TlxString& value : values)
        known.insert(value.utf8());
    std::vector<TlxString> fresh;
    std::copy_if(other, others.end(), std::back_inserter(fresh),
                 [&known](const TlxString& value) { return !known.contains(value.utf8()); });
    if (values.size() + fresh.size() > QUERY_MAX_VALUES)
        values.clear();
    else
        values.insert(values.end(), std::make_move_iterator(fresh.begin()),
                      std::make_move_iterator(fresh.end()));
}

void mergeField(QueryField& field, const QueryField& other)
{
    field.type = mergedType(field.type, other.type);
    if (field.description.empty())
        field.description = other.description;
    mergeValues(field.values, other.values);
}

} // namespace

std::size_t carryableLength(std::string_view text)
{
    std::size_t at = 0;
    while (at < text.size()) {
        char32_t codePoint = 0;
        const std::size_t length = utf8Character(text.substr(at), &codePoint);
        if (length == 0 || !isXmlCharacter(codePoint))
            break;
        at += length;
    }
    return at;
}

const char* toText(QueryFieldType type)
{
    switch (type) {
    case QF_NUMBER:
        return "number";
    case QF_BYTES:
        return "bytes";
    case QF_FLAG:
        return "flag";
    case QF_TEXT:
        break;
    }
    return "text";
}

QueryValue QueryValue::text(TlxString text)
{
    QueryValue value;
    value.m_kind = QV_TEXT;
    value.m_text = std::move(text);
    return value;
}

QueryValue QueryValue::number(std::uint64_t number)
{
    QueryValue value;
    value.m_kind = QV_NUMBER;
    value.m_number = static_cast<QueryNumber>(number);
    return value;
}

QueryValue QueryValue::flag(bool flag)
{
    QueryValue value;
    value.m_kind = QV_FLAG;
    value.m_flag = flag;
    return value;
}

std::string QueryMistake::toText() const
{
    return column == 0 ? std::string() : "column " + std::to_string(column) + ": " + text;
}

TlxQuery::TlxQuery(int) {}

TlxQuery::~TlxQuery() = default;

// Asking.

bool TlxQuery::setQuery(const TlxString& text)
{
    auto expression = parseQuery(text.utf8(), m_mistake);
    if (m_mistake != QueryMistake{})
        return false;
    m_query = expression ? text : TlxString();
    m_expression = std::move(expression);
    return true;
}

bool TlxQuery::matches(const QuerySource& item) const
{
    return !m_expression || m_expression->matches(item);
}

// Describing.

bool TlxQuery::isFieldName(std::string_view name)
{
    return !name.empty() && name.size() <= QUERY_MAX_NAME && isQueryNameStart(name[0]) &&
           std::all_of(name.begin(), name.end(), isQueryNameCharacter) && !isQueryKeyword(name);
}

const QueryField* TlxQuery::field(std::string_view name) const
{
    for (const QueryField& field : m_fields)
        if (compareIgnoringCase(field.name, name) == 0)
            return &field;
    return nullptr;
}

bool TlxQuery::addField(const QueryField& field)
{
    return addFieldOrReason(field).has_value();
}

tl::expected<void, std::string> TlxQuery::addFieldOrReason(const QueryField& field)
{
    return addCarryable(carryable(field));
}

/// Adds a field that carryable returned. All fields of a query come from carryable.
tl::expected<void, std::string> TlxQuery::addCarryable(const QueryField& added)
{
    if (const std::string problem = problemOf(added); !problem.empty())
        return tl::unexpected(problem);
    const auto known =
        std::find_if(m_fields.begin(), m_fields.end(), [&](const QueryField& candidate) {
            return isSameName(candidate.name, added.name);
        });
    if (known != m_fields.end())
        mergeField(*known, added);
    else if (m_fields.size() < QUERY_MAX_FIELDS)
        m_fields.push_back(added);
    else
        return tl::unexpected("there are more than " + std::to_string(QUERY_MAX_FIELDS) +
                              " fields");
    return {};
}

void TlxQuery::addFields(const std::vector<QueryField>& fields, QueryLosses& losses)
{
    for (const QueryField& field : fields)
        if (const auto done = addCarryable(field); !done)
            losses.addField(field, done.error());
}

void TlxQuery::merge(const TlxQuery& other)
{
    if (&other == this)
        return;
    QueryLosses losses;
    addFields(other.m_fields, losses);
    if (!losses.any())
        return;
    if (m_mergedWhole) // one line for any number of descriptions
        losses.log("TlxQuery::merge");
    m_mergedWhole = false;
}

} // namespace Veltrane::Quillmark::Tlx
