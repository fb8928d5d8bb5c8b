#pragma once
// Calls into code of plug-ins.
//
// Such code may throw anything, and may never return. An exception becomes a log line that names
// the code. While a call does not return, the log names it again and again. A crash cannot be
// caught.

#include <chrono>
#include <functional>
#include <string>

namespace Veltrane::Quillmark::Tlx {

/// Runs a call. When it throws, it logs "WHAT failed: REASON" at level 1 under the operation and
/// answers false. While the call runs, it logs "WHAT has not come back for N seconds" at level 1:
/// first after the limit set below, then each time that twice as much has passed.
/// @param what names the code for a person: the library, the explorer, the operation.
bool callForeignCode(const char* operation, const std::string& what,
                     const std::function<void()>& call) noexcept;

/// Sets after how long the log first names a call that has not returned (tests). The default is 30
/// seconds.
void setForeignCodePatience(std::chrono::milliseconds patience);

} // namespace Veltrane::Quillmark::Tlx
