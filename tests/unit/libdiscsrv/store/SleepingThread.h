#pragma once
// Whether another thread of this process waits.

#include <fstream>
#include <iterator>
#include <string>

#include <sys/types.h>

namespace QmTest {

/// True if the thread sleeps until something happens: a lock, a condition, a pipe. A wait for a
/// disk does not count. The next moment may be different.
inline bool isAsleep(pid_t thread)
{
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/stat");
    const std::string text{std::istreambuf_iterator(status), {}};
    // The program's name stands before the state, in brackets, and may contain blanks and brackets.
    const std::size_t end = text.rfind(')');
    return end != text.npos && text.substr(end).starts_with(") S");
}

} // namespace QmTest
