#pragma once
// Whether another thread of this process waits.

#include <fstream>
#include <string>

#include <sys/types.h>

namespace QmTest {

/// True if the kernel's scheduler waits for something before it runs the thread again: a lock, a
/// condition, a disk. The next moment may be different.
inline bool isAsleep(pid_t thread)
{
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string number;
    std::string program;
    std::string state;
    status >> number >> program >> state;
    return state == "S";
}

} // namespace QmTest
