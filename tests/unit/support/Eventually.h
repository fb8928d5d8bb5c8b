#pragma once
// Waits with a limit for another thread or process.

#include <chrono>

#include <sched.h>

namespace QmTest {

constexpr std::chrono::seconds PATIENCE{30};

/// Repeats the check until it is true, and yields the processor in between. Returns false after
/// PATIENCE.
template <class Check>
bool eventually(Check check)
{
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    while (!check()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        ::sched_yield();
    }
    return true;
}

} // namespace QmTest
