#pragma once
// Text to value and back, for what stands in metadata documents.

#include <cstdint>
#include <string>

#include <tlx/ObjTime.h>
#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// A time as decimal seconds, a dot and six digits of microseconds: "1700000000.250000".
std::string toText(const TlxObjTime& time);

/// The whole text, without white space around it, must be the value; otherwise the answer is false
/// and out keeps what it held. Numbers are decimal; a number out of the type's range is no value.
bool fromText(const TlxString& text, TlxObjTime& out);
bool fromText(const TlxString& text, std::uint32_t& out);
bool fromText(const TlxString& text, std::int32_t& out);
bool fromText(const TlxString& text, std::uint64_t& out);

} // namespace Veltrane::Quillmark::Tlx
