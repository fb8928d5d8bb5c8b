#pragma once
// A query's expression, as the parser builds it.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <tlx/Query.h>

namespace Veltrane::Quillmark::Tlx {

/// The right side of a comparison.
struct QueryLiteral
{
    TlxString spelling; ///< for comparisons with texts: without quotation marks and escapes
    QueryValue::Kind kind = QueryValue::QV_TEXT;
    QueryNumber number = 0; ///< of a QV_NUMBER
    bool flag = false;      ///< of a QV_FLAG
};

enum class QueryOperator
{
    Equal,
    Unequal,
    Less,
    LessOrEqual,
    Greater,
    GreaterOrEqual,
    Like
};

/// The steps of a stack machine, operands first. So a long expression needs no recursion, for its
/// evaluation or its destruction. When it is complete, any thread may use it.
class QueryExpression
{
  public:
    // Building. The names of fields are in lower-case letters.
    void compare(std::string field, QueryOperator op, QueryLiteral literal);
    void flag(std::string field);
    void negate();
    void conjoin();
    void disjoin();

    bool matches(const QuerySource& item) const;

  private:
    enum class Kind
    {
        Compare,
        Flag,
        Not,
        And,
        Or
    };
    struct Step
    {
        Kind kind;
        std::string field = {};
        QueryOperator op = QueryOperator::Equal;
        QueryLiteral literal = {};
    };
    static bool test(const Step& step, const QueryValue& value);

    std::vector<Step> m_steps;
};

/// The length of the longest beginning of the text that an XML document can carry.
std::size_t carryableLength(std::string_view text);

} // namespace Veltrane::Quillmark::Tlx
