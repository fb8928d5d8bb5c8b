#pragma once
// The grammar of the query language, for the parser alone. docs/filters.md explains the language.
//
// The grammar looks ahead by one word only. After a recognised word it demands the next part
// (must), and tries no other way. So it reads a text once, each mistake has one place, and
// QUERY_MAX_DEPTH bounds the nesting of calls.

#include <string_view>
#include <utility>

#include <tao/pegtl.hpp>

#include <tlx/Text.h>

#include "QueryWords.h"

// The library exports nothing of its parser.
#pragma GCC visibility push(hidden)

namespace Veltrane::Quillmark::Tlx::QueryLanguage {

namespace pegtl = tao::pegtl;

// Rules made of the language's words.

/// One character that passes a test.
template <bool (*Test)(char)>
struct Character
{
    using rule_t = Character;
    using subs_t = pegtl::empty_list;
    template <class Input>
    static bool match(Input& in)
    {
        if (in.empty() || !Test(in.peek_char()))
            return false;
        in.bump_in_this_line();
        return true;
    }
};

/// One row of a table: the longest spelling that matches here.
template <const auto& Table>
struct Row
{
    using rule_t = Row;
    using subs_t = pegtl::empty_list;
    template <class Input>
    static bool match(Input& in)
    {
        const std::string_view rest(in.current(), in.size());
        std::size_t length = 0;
        for (const auto& row : Table)
            if (row.spelling.size() > length && rest.starts_with(row.spelling))
                length = row.spelling.size();
        in.bump_in_this_line(length);
        return length > 0;
    }
};

/// A fixed text. Rule is string or istring of the library.
template <template <char...> class Rule, const std::string_view& Text,
          class = std::make_index_sequence<Text.size()>>
struct Spelled;
template <template <char...> class Rule, const std::string_view& Text, std::size_t... At>
struct Spelled<Rule, Text, std::index_sequence<At...>> : Rule<Text[At]...>
{
};

/// One keyword of a list, in any case of its letters.
template <const auto& Keywords>
struct OneOf
{
    using rule_t = OneOf;
    using subs_t = pegtl::empty_list;
    template <class Input>
    static bool match(Input& in)
    {
        const std::string_view rest(in.current(), in.size());
        for (const std::string_view keyword : Keywords)
            if (lowerCase(rest.substr(0, keyword.size())) == keyword) {
                in.bump_in_this_line(keyword.size());
                return true;
            }
        return false;
    }
};

// Words.

struct Blanks : pegtl::star<Character<isQueryBlank>>
{
};
struct NameStart : Character<isQueryNameStart>
{
};
struct NameCharacter : Character<isQueryNameCharacter>
{
};
struct WordCharacter : Character<isQueryWordCharacter>
{
};

/// A keyword in a place for a name. It is not the beginning of a longer name.
template <class Text>
struct Word : pegtl::seq<Text, pegtl::not_at<NameCharacter>>
{
};
struct And : Word<Spelled<pegtl::istring, QUERY_AND>>
{
};
struct Or : Word<Spelled<pegtl::istring, QUERY_OR>>
{
};
struct Not : Word<Spelled<pegtl::istring, QUERY_NOT>>
{
};
struct Like : Word<Spelled<pegtl::istring, QUERY_LIKE>>
{
};
struct Keyword : Word<OneOf<QUERY_KEYWORDS>>
{
};

/// A keyword in a place for a value. It is not the beginning of a longer bare value, which may
/// contain other characters than a name.
template <class Text>
struct ValueWord : pegtl::seq<Text, pegtl::not_at<WordCharacter>>
{
};
struct OperatorWord : ValueWord<OneOf<QUERY_OPERATOR_WORDS>>
{
};

// Values.

struct OpeningQuote : Character<isQueryQuotationMark>
{
};
template <char Quote>
struct PlainCharacters : pegtl::plus<pegtl::not_one<Quote, QUERY_ESCAPE[0]>>
{
};
struct Escaped : Row<QUERY_ESCAPES>
{
};
struct Escape : pegtl::if_must<Spelled<pegtl::string, QUERY_ESCAPE>, Escaped>
{
};
template <char Quote>
struct ClosingQuote : pegtl::one<Quote>
{
};
template <char Quote>
struct QuotedBy : pegtl::seq<pegtl::at<pegtl::one<Quote>>, OpeningQuote,
                             pegtl::star<pegtl::sor<Escape, PlainCharacters<Quote>>>,
                             pegtl::must<ClosingQuote<Quote>>>
{
};
struct Quoted : pegtl::sor<QuotedBy<QUERY_QUOTATION_MARKS[0]>, QuotedBy<QUERY_QUOTATION_MARKS[1]>>
{
};
static_assert(QUERY_QUOTATION_MARKS.size() == 2);
struct True : ValueWord<Spelled<pegtl::istring, QUERY_TRUE>>
{
};
struct False : ValueWord<Spelled<pegtl::istring, QUERY_FALSE>>
{
};
struct BareText : pegtl::seq<pegtl::not_at<OperatorWord>, pegtl::plus<WordCharacter>>
{
};
struct BareValue : BareText
{
};
struct BarePattern : BareText
{
};
struct Value : pegtl::sor<Quoted, True, False, BareValue>
{
};
struct Pattern : pegtl::sor<Quoted, BarePattern>
{
};

// Comparisons.

struct Field : pegtl::seq<pegtl::not_at<Keyword>, NameStart, pegtl::star<NameCharacter>>
{
};
struct Operator : Row<QUERY_COMPARISONS>
{
};
struct WithValue : pegtl::seq<Operator, Blanks, pegtl::must<Value>>
{
};
struct WithPattern : pegtl::seq<Like, Blanks, pegtl::must<Pattern>>
{
};
/// No comparison follows the field.
struct AsFlag : pegtl::success
{
};
struct Comparison : pegtl::seq<Field, Blanks, pegtl::sor<WithValue, WithPattern, AsFlag>>
{
};

// Expressions.

struct Disjunction;
struct Operand;
struct Opening : Spelled<pegtl::string, QUERY_OPEN>
{
};
struct Closing : Spelled<pegtl::string, QUERY_CLOSE>
{
};
struct Parenthesised : pegtl::seq<Opening, Blanks, pegtl::must<Disjunction>, pegtl::must<Closing>>
{
};
struct Negation : pegtl::seq<Not, Blanks, pegtl::must<Operand>>
{
};
struct Operand : pegtl::sor<Parenthesised, Negation, Comparison>
{
};
struct MoreAnd : pegtl::seq<And, Blanks, pegtl::must<Operand>, Blanks>
{
};
struct Conjunction : pegtl::seq<Operand, Blanks, pegtl::star<MoreAnd>>
{
};
struct MoreOr : pegtl::seq<Or, Blanks, pegtl::must<Conjunction>>
{
};
struct Disjunction : pegtl::seq<Conjunction, pegtl::star<MoreOr>>
{
};
struct End : pegtl::eof
{
};
struct Grammar : pegtl::seq<Blanks, pegtl::must<Disjunction>, pegtl::must<End>>
{
};

} // namespace Veltrane::Quillmark::Tlx::QueryLanguage

#pragma GCC visibility pop
