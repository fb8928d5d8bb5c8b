#pragma once
// The messages about mistakes in a query: "expected A, found B". Log readers and scripts around
// qmdiscoctl rely on the texts.
//
// A place is a byte offset in the text, a column counts characters. Functions without state: any
// thread.

#include <cstddef>
#include <string>
#include <string_view>

// The library exports nothing of its parser.
#pragma GCC visibility push(hidden)

namespace Veltrane::Quillmark::Tlx::QueryLanguage {

/// Thrown inside the parser; never leaves it.
struct Refusal
{
    std::size_t byte; ///< where in the text
    std::string text;
};

/// The column of a place in the text; the first one is 1.
std::size_t columnOf(std::string_view text, std::size_t byte);

/// Refuses the word at a place. @param expected what the grammar demands there.
Refusal unexpected(const std::string& expected, std::string_view text, std::size_t byte);

// The parts that the grammar demands.

std::string expectedOperand();
std::string expectedValue();
std::string expectedPattern();
std::string expectedNumber();
std::string expectedEscape();
/// @param openingColumn the column of the opening quotation mark.
std::string expectedClosingQuote(std::size_t openingColumn);
/// @param afterField whether the last word was a field, which a comparison may follow.
std::string expectedClosing(bool afterField);
std::string expectedEnd(bool afterField);

// Refusals that do not depend on the word at the place.

Refusal tooDeep(std::size_t byte);
Refusal tooLong();
/// Refuses the character at a place: it is not UTF-8, or no XML document can carry it.
Refusal uncarryable(std::string_view text, std::size_t byte);

} // namespace Veltrane::Quillmark::Tlx::QueryLanguage

#pragma GCC visibility pop
