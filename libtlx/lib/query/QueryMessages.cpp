#include "QueryMessages.h"

#include <cstdint>

#include <fmt/format.h>

#include <tlx/String.h>

#include "QueryWords.h"

namespace Veltrane::Quillmark::Tlx::QueryLanguage {

namespace {

std::string inMarks(std::string_view word)
{
    return fmt::format("\"{}\"", word);
}

/// The word at a place, on one line.
std::string found(std::string_view text, std::size_t byte)
{
    constexpr std::size_t SHOWN = 32; // characters
    text.remove_prefix(byte);
    if (text.empty())
        return "the end of the text";
    if (isQueryQuotationMark(text.front()))
        return "a quotation mark";
    if (text.front() == '\r' || text.front() == '\n')
        return "a line break";
    if (isQueryBlank(text.front()))
        return "a blank";
    const std::size_t end = text.find_first_of(QUERY_WORD_ENDS);
    const std::string_view word = text.substr(0, end == 0 ? 1 : end);
    std::size_t shown = 0;
    for (std::size_t count = 0; count < SHOWN && shown < word.size(); ++count)
        shown += utf8Character(word.substr(shown));
    return "\"" + std::string(word.substr(0, shown)) + (shown < word.size() ? "...\"" : "\"");
}

/// The words that may follow an operand. The caller adds other possible words.
std::string goingOn(bool afterField)
{
    return (afterField ? "a comparison, " : "") + inMarks(QUERY_AND) + ", " + inMarks(QUERY_OR) +
           " or ";
}

} // namespace

std::size_t columnOf(std::string_view text, std::size_t byte)
{
    std::size_t column = 1;
    for (std::size_t at = 0; at < byte; ++column) {
        const std::size_t length = utf8Character(text.substr(at));
        at += length ? length : 1;
    }
    return column;
}

Refusal unexpected(const std::string& expected, std::string_view text, std::size_t byte)
{
    return {byte, "expected " + expected + ", found " + found(text, byte)};
}

std::string expectedOperand()
{
    return "a field name, " + inMarks(QUERY_NOT) + " or " + inMarks(QUERY_OPEN);
}

std::string expectedValue()
{
    return "a value";
}

std::string expectedPattern()
{
    return "a pattern";
}

std::string expectedNumber()
{
    return "a number, as 10, 1.5G or 90% (a text that begins so stands in quotation marks)";
}

std::string expectedEscape()
{
    std::string letters;
    for (const QueryEscape& escape : QUERY_ESCAPES)
        letters += fmt::format("{} ", escape.spelling);
    return "one of " + letters + "after " + inMarks(QUERY_ESCAPE);
}

std::string expectedClosingQuote(std::size_t openingColumn)
{
    return "the quotation mark that closes the one in column " + std::to_string(openingColumn);
}

std::string expectedClosing(bool afterField)
{
    return goingOn(afterField) + inMarks(QUERY_CLOSE);
}

std::string expectedEnd(bool afterField)
{
    return goingOn(afterField) + "the end of the text";
}

Refusal tooDeep(std::size_t byte)
{
    return {byte, fmt::format("expected at most {} {} and {} inside one another", QUERY_MAX_DEPTH,
                              inMarks(QUERY_OPEN), inMarks(QUERY_NOT))};
}

Refusal tooLong()
{
    return {
        QUERY_MAX_LENGTH,
        fmt::format("expected the end of the text, which has at most {} bytes", QUERY_MAX_LENGTH)};
}

Refusal uncarryable(std::string_view text, std::size_t byte)
{
    const std::string_view rest = text.substr(byte);
    char32_t codePoint = 0;
    if (utf8Character(rest, &codePoint) == 0)
        return {byte, fmt::format("expected UTF-8, found the byte 0x{:02X}",
                                  static_cast<unsigned char>(rest[0]))};
    return {byte, fmt::format("expected text, found the character U+{:04X}",
                              static_cast<std::uint32_t>(codePoint))};
}

} // namespace Veltrane::Quillmark::Tlx::QueryLanguage
