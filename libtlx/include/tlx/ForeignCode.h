#pragma once
// Calls the code of plug-ins.
//
// Such code may throw anything, and may never return. An exception becomes a log line that names
// the code. While a call does not return, the log names it again and again. A crash cannot be
// caught.

#include <chrono>
#include <functional>
#include <string>

namespace Veltrane::Quillmark::Tlx {

/// Runs a call. If the call throws, logs "WHAT failed: REASON" at level 1 under the operation and
/// returns false. While the call runs, logs "WHAT has not come back for N seconds" at level 1. The
/// first line comes after the limit below, and each further line after twice the time.
/// @param what names the code for a person: the library, the explorer, the operation.
bool callForeignCode(const char* operation, const std::string& what,
                     const std::function<void()>& call) noexcept;

/// Sets after how long the log first names a call that has not returned (tests). The default is 30
/// seconds.
void setForeignCodePatience(std::chrono::milliseconds patience);

} // namespace Veltrane::Quillmark::Tlx
