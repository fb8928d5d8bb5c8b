#pragma once
// Broken invariants are reported, never fatal.
//
// A daemon that keeps other people's records must not die because one caller, file or plug-in broke
// an assumption. So an assertion is a report: it is logged at level 1 and counted, and the code
// goes on. Every use therefore tests the answer:
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

/// What is called instead of the log; for tests.
using AssertionReporter = std::function<void(const char* expression, const char* file, int line)>;
/// Installs a reporter (an empty one brings the log back); the count goes on either way.
void setAssertionReporter(AssertionReporter reporter);

} // namespace Veltrane::Quillmark::Tlx

/// Answers whether the expression is true; reports its text when it is not.
#define TLX_ASSERT(expression)                                                                     \
    ((expression)                                                                                  \
         ? true                                                                                    \
         : (::Veltrane::Quillmark::Tlx::reportAssertion(#expression, __FILE__, __LINE__), false))

/// The same under a text of its own, where the log's readers know the condition by another wording.
#define TLX_ASSERT_AS(expression, text)                                                            \
    ((expression)                                                                                  \
         ? true                                                                                    \
         : (::Veltrane::Quillmark::Tlx::reportAssertion(text, __FILE__, __LINE__), false))

/// Reports a place that no valid call reaches.
#define TLX_SHOULD_NOT_GET_HERE()                                                                  \
    ::Veltrane::Quillmark::Tlx::reportAssertion("SHOULD_NOT_GET_HERE", __FILE__, __LINE__)
