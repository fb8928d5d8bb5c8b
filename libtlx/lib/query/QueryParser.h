#pragma once
// Parses the text of a query into an expression.

#include <memory>
#include <string_view>

#include <tlx/Query.h>

namespace Veltrane::Quillmark::Tlx {

class QueryExpression;

/// Reads a text in the language of docs/filters.md. Any thread; nothing is thrown.
/// @return the expression; null for a text of white space alone; null, with the reason in mistake,
/// for a text that is not an expression.
std::shared_ptr<const QueryExpression> parseQuery(std::string_view text, QueryMistake& mistake);

} // namespace Veltrane::Quillmark::Tlx
