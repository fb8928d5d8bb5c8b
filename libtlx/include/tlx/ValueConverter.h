#pragma once
// Converts the texts of metadata documents to values, and values to texts.

#include <cstdint>
#include <string>

#include <tlx/ObjTime.h>
#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// A time as decimal seconds, a point and six digits of microseconds: "1700000000.250000".
std::string toText(const TlxObjTime& time);

/// Converts the whole text, except for white space around it. Numbers are decimal.
/// @return false, with out unchanged, if the text is not a value or the type cannot hold it.
bool fromText(const TlxString& text, TlxObjTime& out);
bool fromText(const TlxString& text, std::uint32_t& out);
bool fromText(const TlxString& text, std::int32_t& out);
bool fromText(const TlxString& text, std::uint64_t& out);

} // namespace Veltrane::Quillmark::Tlx
