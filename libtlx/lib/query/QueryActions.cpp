#include "QueryActions.h"

#include <charconv>
#include <limits>

#include "QueryMessages.h"

namespace Veltrane::Quillmark::Tlx::QueryLanguage {

namespace {

static_assert(std::numeric_limits<QueryNumber>::digits >= 64, "64-bit integers are exact");

/// Whether a bare word begins like a number.
bool looksLikeNumber(std::string_view word)
{
    if (word[0] == '-' || word[0] == '+')
        word.remove_prefix(1);
    if (word.size() > 1 && word[0] == '.')
        word.remove_prefix(1);
    return !word.empty() && isQueryDigit(word[0]);
}

/// The factor of a unit: 1 without a unit, 0 for an unknown one.
QueryNumber unitOf(std::string_view unit)
{
    if (unit.empty())
        return 1;
    for (const QueryUnit& row : QUERY_UNITS)
        if (unit.size() == 1 && lowerCase(unit[0]) == lowerCase(row.letter))
            return static_cast<QueryNumber>(row.factor);
    return 0;
}

/// Reads digits with at most one point between them, and a unit.
bool readNumber(std::string_view word, QueryNumber& number)
{
    const char* const end = word.data() + word.size();
    const auto [rest, error] = std::from_chars(word.data(), end, number, std::chars_format::fixed);
    const char first = word[word[0] == '-' ? 1 : 0];
    if (error != std::errc() || first == '.' || rest[-1] == '.')
        return false;
    const QueryNumber unit = unitOf({rest, static_cast<std::size_t>(end - rest)});
    number *= unit;
    return unit != 0 && number <= std::numeric_limits<QueryNumber>::max();
}

} // namespace

void Builder::enter(std::size_t byte)
{
    if (++m_depth > QUERY_MAX_DEPTH)
        throw tooDeep(byte);
}

void Builder::beginQuoted(std::size_t byte)
{
    m_quoted.clear();
    m_quotedFrom = byte;
}

void Builder::appendEscaped(std::string_view spelling)
{
    for (const QueryEscape& escape : QUERY_ESCAPES)
        if (escape.spelling == spelling)
            m_quoted += escape.character;
}

void Builder::takeQuoted()
{
    m_literal.kind = QueryValue::QV_TEXT;
    m_literal.spelling = m_quoted;
}

void Builder::takeTrue(std::string_view spelling)
{
    m_literal = {spelling, QueryValue::QV_FLAG, 0, true};
}

void Builder::takeFalse(std::string_view spelling)
{
    m_literal = {spelling, QueryValue::QV_FLAG, 0, false};
}

void Builder::takeBareValue(std::string_view word)
{
    m_literal = {word};
    if (!looksLikeNumber(word))
        return;
    m_literal.kind = QueryValue::QV_NUMBER;
    if (!readNumber(word, m_literal.number))
        throw unexpected(expectedNumber(), m_text, byteOf(word.data()));
}

void Builder::takeBarePattern(std::string_view word)
{
    m_literal = {word};
}

void Builder::takeOperator(std::string_view spelling)
{
    for (const QueryComparisonWord& row : QUERY_COMPARISONS)
        if (row.spelling == spelling)
            m_op = row.op;
}

void Builder::compare()
{
    m_expression->compare(m_field, m_op, std::move(m_literal));
    m_literal = {};
    m_isAfterField = false;
}

void Builder::flag()
{
    m_expression->flag(m_field);
    m_isAfterField = true;
}

void Builder::closeParentheses()
{
    leave();
    m_isAfterField = false;
}

void Builder::negate()
{
    leave();
    m_expression->negate();
}

} // namespace Veltrane::Quillmark::Tlx::QueryLanguage
