#include "QueryParser.h"

#include "QueryActions.h"
#include "QueryMessages.h"

namespace Veltrane::Quillmark::Tlx {

namespace QueryLanguage {
namespace {

/// The missing part, for a message, if a rule inside must does not match. The code does not compile
/// if a rule has no text here.
template <class Rule>
struct Expected;
template <>
struct Expected<Operand>
{
    static std::string text(const Builder&) { return expectedOperand(); }
};
template <>
struct Expected<Conjunction> : Expected<Operand>
{
};
template <>
struct Expected<Disjunction> : Expected<Operand>
{
};
template <>
struct Expected<Value>
{
    static std::string text(const Builder&) { return expectedValue(); }
};
template <>
struct Expected<Pattern>
{
    static std::string text(const Builder&) { return expectedPattern(); }
};
template <>
struct Expected<Escaped>
{
    static std::string text(const Builder&) { return expectedEscape(); }
};
template <char Quote>
struct Expected<ClosingQuote<Quote>>
{
    static std::string text(const Builder& builder)
    {
        return expectedClosingQuote(columnOf(builder.text(), builder.quotedFrom()));
    }
};
template <>
struct Expected<Closing>
{
    static std::string text(const Builder& builder)
    {
        return expectedClosing(builder.isAfterField());
    }
};
template <>
struct Expected<End>
{
    static std::string text(const Builder& builder) { return expectedEnd(builder.isAfterField()); }
};

/// Makes the parser throw our messages.
template <class Rule>
struct Control : pegtl::normal<Rule>
{
    template <class Input>
    [[noreturn]] static void raise(const Input& in, Builder& builder)
    {
        throw unexpected(Expected<Rule>::text(builder), builder.text(),
                         builder.byteOf(in.current()));
    }
};

/// Refuses the characters that no expression may contain, because XML cannot contain them.
void checkCharacters(std::string_view text)
{
    if (text.size() > QUERY_MAX_LENGTH)
        throw tooLong();
    const std::size_t length = carryableLength(text);
    if (length < text.size())
        throw uncarryable(text, length);
}

} // namespace
} // namespace QueryLanguage

std::shared_ptr<const QueryExpression> parseQuery(std::string_view text, QueryMistake& mistake)
{
    using namespace QueryLanguage;
    mistake = {};
    try {
        checkCharacters(text);
        if (text.find_first_not_of(QUERY_BLANKS) == std::string_view::npos)
            return nullptr;
        Builder builder(text);
        pegtl::memory_input<pegtl::tracking_mode::lazy> in(text.data(), text.size(), "");
        pegtl::parse<Grammar, Action, Control>(in, builder);
        return builder.expression();
    } catch (const Refusal& refusal) {
        mistake = {columnOf(text, refusal.byte), refusal.text};
        return nullptr;
    }
}

} // namespace Veltrane::Quillmark::Tlx
