#pragma once
// The kernel's view of the locks on a file.

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace QmTest {

inline ino_t inodeOf(const std::string& path)
{
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

/// Whether a process waits in the kernel for a lock on the file. /proc/locks marks such a wait with
/// an arrow.
inline bool isBlocked(pid_t pid, const std::string& path)
{
    std::ifstream locks("/proc/locks");
    const std::string inode = ":" + std::to_string(inodeOf(path));
    for (std::string line; std::getline(locks, line);) {
        std::istringstream fields(line);
        std::string number, arrow, kind, advisory, type, holder, file;
        fields >> number >> arrow >> kind >> advisory >> type >> holder >> file;
        if (arrow == "->" && holder == std::to_string(pid) && file.ends_with(inode))
            return true;
    }
    return false;
}

/// The lock that other processes hold on the file: "None", "Read" or "Write". On failure it returns
/// the number of the error.
inline std::string lockOfOthers(int descriptor)
{
    struct flock request = {};
    request.l_type = F_WRLCK;
    request.l_whence = SEEK_SET;
    request.l_len = 1;
    if (::fcntl(descriptor, F_GETLK, &request) != 0)
        return std::to_string(errno);
    return request.l_type == F_UNLCK ? "None" : request.l_type == F_RDLCK ? "Read" : "Write";
}

} // namespace QmTest
