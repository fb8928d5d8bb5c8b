// The language of queries. docs/filters.md tells it to those who write in it.
//
// The grammar looks ahead by one word only: once a word has been taken for what it is, whatever
// must follow it is demanded (must), never tried another way. So a text is read once, each mistake
// has one place, and the calls inside one another are bounded by QUERY_MAX_DEPTH.

#include "QueryExpression.h"

#include <charconv>
#include <limits>

#include <fmt/format.h>
#include <tao/pegtl.hpp>

namespace Veltrane::Quillmark::Tlx {

namespace {

namespace pegtl = tao::pegtl;

static_assert(std::numeric_limits<QueryNumber>::digits >= 64, "64-bit integers are exact");

/// Thrown by the parser, never out of this file.
struct Refused
{
    std::size_t byte; ///< where in the text
    std::string text;
};

/// What the actions build.
struct Builder
{
    std::string_view text;
    std::shared_ptr<QueryExpression> expression = std::make_shared<QueryExpression>();
    std::size_t depth = 0;
    std::string field = {};
    QueryOperator op = QueryOperator::Equal;
    QueryLiteral literal = {};
    std::string quoted = {};
    std::size_t quotedFrom = 0;
    bool bareField = false; ///< whether a field without a comparison was read last

    /// (The parser could tell by itself, but counts from the start each time.)
    std::size_t byteOf(const char* place) const
    {
        return static_cast<std::size_t>(place - text.data());
    }
    void enter(std::size_t byte)
    {
        if (++depth > QUERY_MAX_DEPTH)
            throw Refused{byte, "expected at most " + std::to_string(QUERY_MAX_DEPTH) +
                                    " \"(\" and \"not\" inside one another"};
    }
    void leave() { --depth; }
    void compare()
    {
        expression->compare(field, op, std::move(literal));
        literal = {};
        bareField = false;
    }
};

std::size_t columnOf(std::string_view text, std::size_t byte)
{
    std::size_t column = 1;
    for (std::size_t at = 0; at < byte; ++column) {
        const std::size_t length = utf8Character(text.substr(at));
        at += length ? length : 1;
    }
    return column;
}

// The words.

struct Blanks : pegtl::star<pegtl::one<' ', '\t', '\r', '\n'>>
{
};
struct NameStart : pegtl::sor<pegtl::alpha, pegtl::one<'_'>>
{
};
struct NameChar : pegtl::sor<pegtl::alnum, pegtl::one<'_', '-', '.'>>
{
};
struct BareChar : pegtl::not_one<' ', '\t', '\r', '\n', '"', '\'', '(', ')', '=', '!', '<', '>'>
{
};

struct AndText : TAO_PEGTL_ISTRING("and")
{
};
struct OrText : TAO_PEGTL_ISTRING("or")
{
};
struct NotText : TAO_PEGTL_ISTRING("not")
{
};
struct LikeText : TAO_PEGTL_ISTRING("like")
{
};
struct TrueText : TAO_PEGTL_ISTRING("true")
{
};
struct FalseText : TAO_PEGTL_ISTRING("false")
{
};

/// A word that is not the start of a longer one.
template <class Text>
struct Word : pegtl::seq<Text, pegtl::not_at<NameChar>>
{
};
struct And : Word<AndText>
{
};
struct Or : Word<OrText>
{
};
struct Not : Word<NotText>
{
};
struct Like : Word<LikeText>
{
};
struct Keyword : Word<pegtl::sor<AndText, OrText, NotText, LikeText, TrueText, FalseText>>
{
};

/// A bare word as a value; there a longer word may go on with more than a name can.
template <class Text>
struct ValueWord : pegtl::seq<Text, pegtl::not_at<BareChar>>
{
};
struct Operators : ValueWord<pegtl::sor<AndText, OrText, NotText, LikeText>>
{
};

// Values.

struct OpeningQuote : pegtl::one<'"', '\''>
{
};
template <char Quote>
struct PlainChars : pegtl::plus<pegtl::not_one<Quote, '\\'>>
{
};
struct Escaped : pegtl::one<'"', '\'', '\\', 'n', 'r', 't'>
{
};
struct Escape : pegtl::if_must<pegtl::one<'\\'>, Escaped>
{
};
template <char Quote>
struct ClosingQuote : pegtl::one<Quote>
{
};
template <char Quote>
struct QuotedBy : pegtl::seq<pegtl::at<pegtl::one<Quote>>, OpeningQuote,
                             pegtl::star<pegtl::sor<Escape, PlainChars<Quote>>>,
                             pegtl::must<ClosingQuote<Quote>>>
{
};
struct Quoted : pegtl::sor<QuotedBy<'"'>, QuotedBy<'\''>>
{
};
struct True : ValueWord<TrueText>
{
};
struct False : ValueWord<FalseText>
{
};
struct BareValue : pegtl::seq<pegtl::not_at<Operators>, pegtl::plus<BareChar>>
{
};
struct BarePattern : pegtl::seq<pegtl::not_at<Operators>, pegtl::plus<BareChar>>
{
};
struct Value : pegtl::sor<Quoted, True, False, BareValue>
{
};
struct Pattern : pegtl::sor<Quoted, BarePattern>
{
};

// Comparisons.

struct Field : pegtl::seq<pegtl::not_at<Keyword>, NameStart, pegtl::star<NameChar>>
{
};
struct Equal : pegtl::one<'='>
{
};
struct Unequal : pegtl::string<'!', '='>
{
};
struct LessOrEqual : pegtl::string<'<', '='>
{
};
struct GreaterOrEqual : pegtl::string<'>', '='>
{
};
struct Less : pegtl::one<'<'>
{
};
struct Greater : pegtl::one<'>'>
{
};
struct Operator : pegtl::sor<Equal, Unequal, LessOrEqual, GreaterOrEqual, Less, Greater>
{
};
struct WithValue : pegtl::seq<Operator, Blanks, pegtl::must<Value>>
{
};
struct WithPattern : pegtl::seq<Like, Blanks, pegtl::must<Pattern>>
{
};
struct AsFlag : pegtl::success
{
};
struct Comparison : pegtl::seq<Field, Blanks, pegtl::sor<WithValue, WithPattern, AsFlag>>
{
};

// Expressions.

struct Disjunction;
struct Operand;
struct Opening : pegtl::one<'('>
{
};
struct Closing : pegtl::one<')'>
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

// What is said when something is missing.

template <class Rule>
struct Expected;

struct ExpectedOperand
{
    static std::string text(const Builder&) { return "a field name, \"not\" or \"(\""; }
};
template <>
struct Expected<Operand> : ExpectedOperand
{
};
template <>
struct Expected<Conjunction> : ExpectedOperand
{
};
template <>
struct Expected<Disjunction> : ExpectedOperand
{
};
template <>
struct Expected<Value>
{
    static std::string text(const Builder&) { return "a value"; }
};
template <>
struct Expected<Pattern>
{
    static std::string text(const Builder&) { return "a pattern"; }
};
template <>
struct Expected<Escaped>
{
    static std::string text(const Builder&) { return "one of \" ' \\ n r t after \"\\\""; }
};
template <char Quote>
struct Expected<ClosingQuote<Quote>>
{
    static std::string text(const Builder& builder)
    {
        return "the quotation mark that closes the one in column " +
               std::to_string(columnOf(builder.text, builder.quotedFrom));
    }
};
std::string goingOn(const Builder& builder)
{
    return builder.bareField ? "a comparison, \"and\", \"or\" or " : "\"and\", \"or\" or ";
}
template <>
struct Expected<Closing>
{
    static std::string text(const Builder& builder) { return goingOn(builder) + "\")\""; }
};
template <>
struct Expected<End>
{
    static std::string text(const Builder& builder)
    {
        return goingOn(builder) + "the end of the text";
    }
};

/// The word at a place, for a message.
std::string found(std::string_view text, std::size_t byte)
{
    constexpr std::size_t SHOWN = 32; // characters
    text.remove_prefix(byte);
    if (text.empty())
        return "the end of the text";
    if (text.front() == '"' || text.front() == '\'')
        return "a quotation mark";
    if (text.front() == '\r' || text.front() == '\n')
        return "a line break"; // a mistake is told in one line
    if (text.front() == ' ' || text.front() == '\t')
        return "a blank";
    const std::size_t end = text.find_first_of(" \t\r\n\"'()=!<>");
    const std::string_view word = text.substr(0, end == 0 ? 1 : end);
    std::size_t shown = 0;
    for (std::size_t count = 0; count < SHOWN && shown < word.size(); ++count)
        shown += utf8Character(word.substr(shown));
    return "\"" + std::string(word.substr(0, shown)) + (shown < word.size() ? "...\"" : "\"");
}

template <class Rule>
struct Control : pegtl::normal<Rule>
{
    template <class Input>
    [[noreturn]] static void raise(const Input& in, Builder& builder)
    {
        const std::size_t byte = builder.byteOf(in.current());
        throw Refused{byte, "expected " + Expected<Rule>::text(builder) + ", found " +
                                found(builder.text, byte)};
    }
};

// What the words do.

/// Whether a bare word begins as only numbers do.
bool looksLikeNumber(std::string_view word)
{
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (word[0] == '-' || word[0] == '+')
        word.remove_prefix(1);
    if (word.size() > 1 && word[0] == '.')
        word.remove_prefix(1);
    return !word.empty() && isDigit(word[0]);
}

/// 1 for no unit; units of amounts are powers of 1024. 0 when it is none.
QueryNumber unitOf(std::string_view unit)
{
    constexpr std::string_view AMOUNTS = "KMGTP";
    if (unit.empty() || unit == "%")
        return 1;
    const char letter =
        unit[0] >= 'a' && unit[0] <= 'z' ? static_cast<char>(unit[0] - 'a' + 'A') : unit[0];
    const std::size_t power = AMOUNTS.find(letter);
    if (unit.size() != 1 || power == std::string_view::npos)
        return 0;
    return static_cast<QueryNumber>(std::uint64_t{1} << (10 * (power + 1)));
}

/// Digits, at most one point between digits, a unit.
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

template <class Rule>
struct Action : pegtl::nothing<Rule>
{
};

template <QueryOperator Op>
struct TakeOperator
{
    static void apply0(Builder& builder) { builder.op = Op; }
};
template <>
struct Action<Equal> : TakeOperator<QueryOperator::Equal>
{
};
template <>
struct Action<Unequal> : TakeOperator<QueryOperator::Unequal>
{
};
template <>
struct Action<Less> : TakeOperator<QueryOperator::Less>
{
};
template <>
struct Action<LessOrEqual> : TakeOperator<QueryOperator::LessOrEqual>
{
};
template <>
struct Action<Greater> : TakeOperator<QueryOperator::Greater>
{
};
template <>
struct Action<GreaterOrEqual> : TakeOperator<QueryOperator::GreaterOrEqual>
{
};
template <>
struct Action<Like> : TakeOperator<QueryOperator::Like>
{
};

template <>
struct Action<OpeningQuote>
{
    template <class Input>
    static void apply(const Input& in, Builder& builder)
    {
        builder.quoted.clear();
        builder.quotedFrom = builder.byteOf(in.begin());
    }
};
template <char Quote>
struct Action<PlainChars<Quote>>
{
    template <class Input>
    static void apply(const Input& in, Builder& builder)
    {
        builder.quoted.append(in.begin(), in.end());
    }
};
template <>
struct Action<Escaped>
{
    template <class Input>
    static void apply(const Input& in, Builder& builder)
    {
        const char c = *in.begin();
        builder.quoted += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c;
    }
};
template <>
struct Action<Quoted>
{
    static void apply0(Builder& builder)
    {
        builder.literal.kind = QueryValue::QV_TEXT;
        builder.literal.spelling = builder.quoted;
    }
};

template <bool Flag>
struct TakeFlag
{
    template <class Input>
    static void apply(const Input& in, Builder& builder)
    {
        builder.literal = {in.string(), QueryValue::QV_FLAG, 0, Flag};
    }
};
template <>
struct Action<True> : TakeFlag<true>
{
};
template <>
struct Action<False> : TakeFlag<false>
{
};
template <>
struct Action<BareValue>
{
    template <class Input>
    static void apply(const Input& in, Builder& builder)
    {
        const std::string word = in.string();
        builder.literal = {word};
        if (!looksLikeNumber(word))
            return;
        builder.literal.kind = QueryValue::QV_NUMBER;
        const std::size_t byte = builder.byteOf(in.begin());
        if (!readNumber(word, builder.literal.number))
            throw Refused{byte, "expected a number, as 10, 1.5G or 90% (a text that begins so "
                                "stands in quotation marks), found " +
                                    found(builder.text, byte)};
    }
};
template <>
struct Action<BarePattern>
{
    template <class Input>
    static void apply(const Input& in, Builder& builder)
    {
        builder.literal = {in.string()};
    }
};

template <>
struct Action<Field>
{
    template <class Input>
    static void apply(const Input& in, Builder& builder)
    {
        builder.field = queryLowerCase(in.string_view());
    }
};
struct TakeComparison
{
    static void apply0(Builder& builder) { builder.compare(); }
};
template <>
struct Action<WithValue> : TakeComparison
{
};
template <>
struct Action<WithPattern> : TakeComparison
{
};
template <>
struct Action<AsFlag>
{
    static void apply0(Builder& builder)
    {
        builder.expression->flag(builder.field);
        builder.bareField = true;
    }
};

struct Enter
{
    template <class Input>
    static void apply(const Input& in, Builder& builder)
    {
        builder.enter(builder.byteOf(in.begin()));
    }
};
template <>
struct Action<Opening> : Enter
{
};
template <>
struct Action<Not> : Enter
{
};
template <>
struct Action<Parenthesised>
{
    static void apply0(Builder& builder)
    {
        builder.leave();
        builder.bareField = false;
    }
};
template <>
struct Action<Negation>
{
    static void apply0(Builder& builder)
    {
        builder.leave();
        builder.expression->negate();
    }
};
template <>
struct Action<MoreAnd>
{
    static void apply0(Builder& builder) { builder.expression->conjoin(); }
};
template <>
struct Action<MoreOr>
{
    static void apply0(Builder& builder) { builder.expression->disjoin(); }
};

/// What no expression can hold, wherever it stands: it would not survive its XML form.
void checkCharacters(std::string_view text)
{
    if (text.size() > QUERY_MAX_LENGTH)
        throw Refused{QUERY_MAX_LENGTH, "expected the end of the text, which has at most " +
                                            std::to_string(QUERY_MAX_LENGTH) + " bytes"};
    const std::size_t length = carryableLength(text);
    if (length == text.size())
        return;
    const std::string_view rest = text.substr(length);
    char32_t codePoint = 0;
    if (utf8Character(rest, &codePoint) == 0)
        throw Refused{length, "expected UTF-8, found the byte " +
                                  fmt::format("0x{:02X}", static_cast<unsigned char>(rest[0]))};
    throw Refused{length, "expected text, found the character " +
                              fmt::format("U+{:04X}", static_cast<std::uint32_t>(codePoint))};
}

} // namespace

std::shared_ptr<const QueryExpression> parseQuery(std::string_view text, QueryMistake& mistake)
{
    mistake = {};
    try {
        checkCharacters(text);
        if (text.find_first_not_of(" \t\r\n") == std::string_view::npos)
            return nullptr;
        Builder builder{text};
        pegtl::memory_input<pegtl::tracking_mode::lazy> in(text.data(), text.size(), "");
        pegtl::parse<Grammar, Action, Control>(in, builder);
        return builder.expression;
    } catch (const Refused& refused) {
        mistake = {columnOf(text, refused.byte), refused.text};
        return nullptr;
    }
}

bool isQueryKeyword(std::string_view name)
{
    const std::string word = queryLowerCase(name);
    for (const char* keyword : {"and", "or", "not", "like", "true", "false"})
        if (word == keyword)
            return true;
    return false;
}

} // namespace Veltrane::Quillmark::Tlx
