#pragma once
// The descriptors that this process has open.

#include <cstddef>
#include <filesystem>
#include <string>
#include <system_error>

namespace QmTest {

/// The descriptor of a file or directory that this process has open, -1 if it has none.
inline int descriptorOf(const std::filesystem::path& path)
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry.path(), gone) == path && !gone)
            return std::stoi(entry.path().filename().string());
    }
    return -1;
}

inline std::size_t descriptorCount()
{
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++count;
    }
    return count;
}

} // namespace QmTest
