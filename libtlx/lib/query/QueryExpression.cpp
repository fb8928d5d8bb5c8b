#include "QueryExpression.h"

#include <algorithm>
#include <compare>

#include <tlx/Assert.h>
#include <tlx/Wildcard.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

bool holds(QueryOperator op, std::partial_ordering order)
{
    switch (op) {
    case QueryOperator::Equal:
        return order == 0;
    case QueryOperator::Unequal:
        return order != 0;
    case QueryOperator::Less:
        return order < 0;
    case QueryOperator::LessOrEqual:
        return order <= 0;
    case QueryOperator::Greater:
        return order > 0;
    case QueryOperator::GreaterOrEqual:
        return order >= 0;
    case QueryOperator::Like:
        break;
    }
    return false; // only texts have patterns
}

bool isEquality(QueryOperator op)
{
    return op == QueryOperator::Equal || op == QueryOperator::Unequal;
}

} // namespace

void QueryExpression::compare(std::string field, QueryOperator op, QueryLiteral literal)
{
    m_steps.push_back({Kind::Compare, std::move(field), op, std::move(literal)});
}

void QueryExpression::flag(std::string field)
{
    m_steps.push_back({Kind::Flag, std::move(field)});
}

void QueryExpression::negate()
{
    m_steps.push_back({Kind::Not});
}

void QueryExpression::conjoin()
{
    m_steps.push_back({Kind::And});
}

void QueryExpression::disjoin()
{
    m_steps.push_back({Kind::Or});
}

bool QueryExpression::test(const Step& step, const QueryValue& value)
{
    if (step.kind == Kind::Flag)
        return value.asFlag();
    const QueryLiteral& literal = step.literal;
    switch (value.kind()) {
    case QueryValue::QV_MISSING:
        return false;
    case QueryValue::QV_TEXT:
        if (step.op == QueryOperator::Like)
            return wildcardcmp(literal.spelling.c_str(), value.asText().c_str(), 0) == 0;
        return holds(step.op, value.asText() <=> literal.spelling);
    case QueryValue::QV_NUMBER:
        return literal.kind == QueryValue::QV_NUMBER &&
               holds(step.op, value.asNumber() <=> literal.number);
    case QueryValue::QV_FLAG:
        return literal.kind == QueryValue::QV_FLAG && isEquality(step.op) &&
               holds(step.op, value.asFlag() <=> literal.flag);
    }
    return false;
}

bool QueryExpression::matches(const QuerySource& item) const
{
    std::vector<bool> results;
    for (const Step& step : m_steps) {
        if (step.kind == Kind::Compare || step.kind == Kind::Flag) {
            results.push_back(test(step, item.valueOf(step.field)));
            continue;
        }
        if (!TLX_ASSERT(!results.empty()))
            return false;
        const bool last = results.back();
        if (step.kind == Kind::Not) {
            results.back() = !last;
            continue;
        }
        results.pop_back();
        if (!TLX_ASSERT(!results.empty()))
            return false;
        results.back() = step.kind == Kind::And ? results.back() && last : results.back() || last;
    }
    return TLX_ASSERT(results.size() == 1) && results.back();
}

} // namespace Veltrane::Quillmark::Tlx
