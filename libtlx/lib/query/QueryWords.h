#pragma once
// The words of the query language. The grammar, the messages and the actions take them from here. A
// test compares them with docs/filters.md and qmdisco-filters(7).
//
// Constants and functions without state: any thread; nothing fails.

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

#include <tlx/Text.h>

#include "QueryExpression.h"

namespace Veltrane::Quillmark::Tlx {

// Keywords. Upper and lower case are the same.

inline constexpr std::string_view QUERY_AND = "and";
inline constexpr std::string_view QUERY_OR = "or";
inline constexpr std::string_view QUERY_NOT = "not";
inline constexpr std::string_view QUERY_LIKE = "like";
inline constexpr std::string_view QUERY_TRUE = "true";
inline constexpr std::string_view QUERY_FALSE = "false";

/// Keywords that cannot be a value or a pattern without quotation marks.
inline constexpr std::array QUERY_OPERATOR_WORDS{QUERY_AND, QUERY_OR, QUERY_NOT, QUERY_LIKE};
/// All keywords. None of them can be a field's name.
inline constexpr std::array QUERY_KEYWORDS{QUERY_AND,  QUERY_OR,   QUERY_NOT,
                                           QUERY_LIKE, QUERY_TRUE, QUERY_FALSE};

// Symbols.

inline constexpr std::string_view QUERY_OPEN = "(";
inline constexpr std::string_view QUERY_CLOSE = ")";

struct QueryComparisonWord
{
    std::string_view spelling;
    QueryOperator op;
};
/// The comparisons with a value.
inline constexpr std::array<QueryComparisonWord, 6> QUERY_COMPARISONS{{
    {"=", QueryOperator::Equal},
    {"!=", QueryOperator::Unequal},
    {"<", QueryOperator::Less},
    {"<=", QueryOperator::LessOrEqual},
    {">", QueryOperator::Greater},
    {">=", QueryOperator::GreaterOrEqual},
}};

// Values.

struct QueryUnit
{
    char letter; ///< capital; a filter may use the small letter, too
    std::uint64_t factor;
};
/// The units, which may follow a number.
inline constexpr std::array<QueryUnit, 6> QUERY_UNITS{{
    {'K', std::uint64_t{1} << 10},
    {'M', std::uint64_t{1} << 20},
    {'G', std::uint64_t{1} << 30},
    {'T', std::uint64_t{1} << 40},
    {'P', std::uint64_t{1} << 50},
    {'%', 1},
}};

/// A quoted text begins and ends with the same mark.
inline constexpr std::string_view QUERY_QUOTATION_MARKS = "\"'";

/// Begins an escape inside quotation marks.
inline constexpr std::string_view QUERY_ESCAPE = "\\";
struct QueryEscape
{
    std::string_view spelling; ///< after QUERY_ESCAPE
    char character;            ///< its meaning
};
inline constexpr std::array<QueryEscape, 6> QUERY_ESCAPES{{
    {"\"", '"'},
    {"'", '\''},
    {"\\", '\\'},
    {"n", '\n'},
    {"r", '\r'},
    {"t", '\t'},
}};

// Characters.

inline constexpr std::string_view QUERY_BLANKS = " \t\r\n";
/// The characters that end a word without quotation marks.
inline constexpr std::string_view QUERY_WORD_ENDS = " \t\r\n\"'()=!<>";

constexpr bool isQueryBlank(char c)
{
    return QUERY_BLANKS.find(c) != std::string_view::npos;
}
/// Whether a bare value may contain the character.
constexpr bool isQueryWordCharacter(char c)
{
    return QUERY_WORD_ENDS.find(c) == std::string_view::npos;
}
constexpr bool isQueryQuotationMark(char c)
{
    return QUERY_QUOTATION_MARKS.find(c) != std::string_view::npos;
}
constexpr bool isQueryDigit(char c)
{
    return c >= '0' && c <= '9';
}
/// Whether a field's name may begin with the character.
constexpr bool isQueryNameStart(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
constexpr bool isQueryNameCharacter(char c)
{
    return isQueryNameStart(c) || isQueryDigit(c) || c == '-' || c == '.';
}

/// Whether a name is a keyword.
inline bool isQueryKeyword(std::string_view name)
{
    return std::ranges::find(QUERY_KEYWORDS, lowerCase(name)) != QUERY_KEYWORDS.end();
}

} // namespace Veltrane::Quillmark::Tlx
