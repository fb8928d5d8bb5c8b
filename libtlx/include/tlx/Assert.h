#pragma once
// An assertion reports a broken invariant and never ends the process.
//
// The daemon keeps other people's records. It must not die because one caller, file or plug-in
// broke an assumption. So a failed assertion is logged at level 1 and counted, and the code goes
// on. Every use tests the result:
//
//     if (!TLX_ASSERT(NULL != m_writer))
//         return false;

#include <functional>

namespace Veltrane::Quillmark::Tlx {

/// Reports a broken invariant: logs "Assertion failed: EXPRESSION (FILE:LINE)" at level 1 under the
/// operation "assertion", and counts it. Any thread; never throws.
void reportAssertion(const char* expression, const char* file, int line) noexcept;

/// How many assertions have failed since the process started.
unsigned long assertionCount() noexcept;

/// Replaces the log (tests).
using AssertionReporter = std::function<void(const char* expression, const char* file, int line)>;
/// Installs a reporter; an empty one installs the log again. Failures are counted in both cases.
void setAssertionReporter(AssertionReporter reporter);

} // namespace Veltrane::Quillmark::Tlx

/// Returns whether the expression is true, and reports its text if it is false.
#define TLX_ASSERT(expression)                                                                     \
    ((expression)                                                                                  \
         ? true                                                                                    \
         : (::Veltrane::Quillmark::Tlx::reportAssertion(#expression, __FILE__, __LINE__), false))

/// The same, with another text than the expression.
// Compat(log-assertions): log readers know an assertion by its text, even where the code checks the
// condition in other words.
#define TLX_ASSERT_AS(expression, text)                                                            \
    ((expression)                                                                                  \
         ? true                                                                                    \
         : (::Veltrane::Quillmark::Tlx::reportAssertion(text, __FILE__, __LINE__), false))

/// Reports that the code reached a place that no valid call reaches.
#define TLX_SHOULD_NOT_GET_HERE()                                                                  \
    ::Veltrane::Quillmark::Tlx::reportAssertion("SHOULD_NOT_GET_HERE", __FILE__, __LINE__)
