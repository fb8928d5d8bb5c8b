#pragma once
// The parser's actions. After each rule of the grammar they add steps to the expression.

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <tlx/Text.h>

#include "QueryExpression.h"
#include "QueryGrammar.h"

// The library exports nothing of its parser.
#pragma GCC visibility push(hidden)

namespace Veltrane::Quillmark::Tlx::QueryLanguage {

/// The state of one parse. The actions pass it the parts that they have read. Throws Refusal.
class Builder
{
  public:
    explicit Builder(std::string_view text) : m_text(text) {}

    /// The byte offset of a place in the text. (The library's own position would count from the
    /// start of the text each time.)
    std::size_t byteOf(const char* place) const
    {
        return static_cast<std::size_t>(place - m_text.data());
    }
    std::string_view text() const { return m_text; }
    std::size_t quotedFrom() const { return m_quotedFrom; }
    /// Whether the last operand was a field without a comparison.
    bool isAfterField() const { return m_isAfterField; }
    std::shared_ptr<const QueryExpression> expression() const { return m_expression; }

    // Nesting. "(" and "not" count together.
    void enter(std::size_t byte);
    void leave() { --m_depth; }

    void beginQuoted(std::size_t byte);
    void appendQuoted(std::string_view plain) { m_quoted += plain; }
    void appendEscaped(std::string_view spelling);
    void takeQuoted();
    void takeTrue(std::string_view spelling);
    void takeFalse(std::string_view spelling);
    /// A word without quotation marks. If it begins like a number, it must be a number.
    void takeBareValue(std::string_view word);
    void takeBarePattern(std::string_view word);

    void takeField(std::string_view name) { m_field = lowerCase(name); }
    void takeOperator(std::string_view spelling);
    void takeLike() { m_op = QueryOperator::Like; }

    void compare();
    void flag();
    void closeParentheses();
    void negate();
    void conjoin() { m_expression->conjoin(); }
    void disjoin() { m_expression->disjoin(); }

  private:
    const std::string_view m_text;
    const std::shared_ptr<QueryExpression> m_expression = std::make_shared<QueryExpression>();
    std::size_t m_depth = 0;
    std::string m_field;
    QueryOperator m_op = QueryOperator::Equal;
    QueryLiteral m_literal;
    std::string m_quoted;
    std::size_t m_quotedFrom = 0;
    bool m_isAfterField = false;
};

/// The action of a rule. Most rules have none.
template <class Rule>
struct Action : pegtl::nothing<Rule>
{
};

/// Hands the text of a rule to the builder.
template <void (Builder::*Take)(std::string_view)>
struct WithText
{
    template <class Input>
    static void apply(const Input& in, Builder& builder)
    {
        (builder.*Take)(in.string_view());
    }
};
/// Hands the place of a rule to the builder.
template <void (Builder::*Take)(std::size_t)>
struct WithPlace
{
    template <class Input>
    static void apply(const Input& in, Builder& builder)
    {
        (builder.*Take)(builder.byteOf(in.begin()));
    }
};
/// Informs the builder that a rule was read.
template <void (Builder::*Take)()>
struct Alone
{
    static void apply0(Builder& builder) { (builder.*Take)(); }
};

// Values.

template <>
struct Action<OpeningQuote> : WithPlace<&Builder::beginQuoted>
{
};
template <char Quote>
struct Action<PlainCharacters<Quote>> : WithText<&Builder::appendQuoted>
{
};
template <>
struct Action<Escaped> : WithText<&Builder::appendEscaped>
{
};
template <>
struct Action<Quoted> : Alone<&Builder::takeQuoted>
{
};
template <>
struct Action<True> : WithText<&Builder::takeTrue>
{
};
template <>
struct Action<False> : WithText<&Builder::takeFalse>
{
};
template <>
struct Action<BareValue> : WithText<&Builder::takeBareValue>
{
};
template <>
struct Action<BarePattern> : WithText<&Builder::takeBarePattern>
{
};

// Comparisons.

template <>
struct Action<Field> : WithText<&Builder::takeField>
{
};
template <>
struct Action<Operator> : WithText<&Builder::takeOperator>
{
};
template <>
struct Action<Like> : Alone<&Builder::takeLike>
{
};
template <>
struct Action<WithValue> : Alone<&Builder::compare>
{
};
template <>
struct Action<WithPattern> : Alone<&Builder::compare>
{
};
template <>
struct Action<AsFlag> : Alone<&Builder::flag>
{
};

// Expressions.

template <>
struct Action<Opening> : WithPlace<&Builder::enter>
{
};
template <>
struct Action<Not> : WithPlace<&Builder::enter>
{
};
template <>
struct Action<Parenthesised> : Alone<&Builder::closeParentheses>
{
};
template <>
struct Action<Negation> : Alone<&Builder::negate>
{
};
template <>
struct Action<MoreAnd> : Alone<&Builder::conjoin>
{
};
template <>
struct Action<MoreOr> : Alone<&Builder::disjoin>
{
};

} // namespace Veltrane::Quillmark::Tlx::QueryLanguage

#pragma GCC visibility pop
