#pragma once
// When the evictor's thread looks at an object.

#include <chrono>

namespace Veltrane::Quillmark::Tlx {

/// The time of the next look at an object. One that was due at the last look, and is still here,
/// was busy: the thread looks at it again after its time-out. One that fell due since then must not
/// wait so long.
inline std::chrono::steady_clock::time_point
nextLookAt(std::chrono::steady_clock::time_point due, std::chrono::steady_clock::duration timeout,
           std::chrono::steady_clock::time_point lastLook,
           std::chrono::steady_clock::time_point now)
{
    return due > lastLook ? due : now + timeout;
}

} // namespace Veltrane::Quillmark::Tlx
