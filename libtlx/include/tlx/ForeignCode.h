#pragma once
// Calls into code that somebody else wrote and this process loaded.
//
// Such code may throw anything, and may never come back. What it throws becomes a log line that
// names it; while it does not come back it is named in the log again and again. (What crashes the
// process cannot be caught.)

#include <chrono>
#include <functional>
#include <string>

namespace Veltrane::Quillmark::Tlx {

/// Runs a call. False when it threw; then "WHAT failed: REASON" was logged at level 1 under the
/// operation. While it runs, "WHAT has not come back for N seconds" is logged at level 1, first
/// after the limit set below and then each time that twice as much has passed.
/// @param what names the code for a person: the library, the explorer, the operation.
bool callForeignCode(const char* operation, const std::string& what,
                     const std::function<void()>& call) noexcept;

/// After how long a call that has not come back is named first; 30 seconds unless told. For tests.
void setForeignCodePatience(std::chrono::milliseconds patience);

} // namespace Veltrane::Quillmark::Tlx
