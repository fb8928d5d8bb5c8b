#pragma once
// Waiting for a mutex, with a time limit.

#include <chrono>
#include <mutex>
#include <thread>

namespace Veltrane::Quillmark::Tlx {

/// Locks a mutex if that takes no longer than the limit. Asks again each millisecond: the thread
/// sanitizer does not understand the standard library's timed mutexes. Use it where waiting is
/// rare.
inline bool tryLockFor(std::mutex& mutex, std::chrono::milliseconds limit)
{
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!mutex.try_lock()) {
        if (std::chrono::steady_clock::now() >= until)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace Veltrane::Quillmark::Tlx
