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

/// Whether a process waits in the kernel for a lock on the file (F_SETLKW). /proc/locks marks such
/// a wait with an arrow. A FileLock does not wait in the kernel: see FileLock::counts().
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

/// A request for the lock that FileLock uses: the first byte of the file.
inline struct flock lockRequest(short type)
{
    struct flock request = {};
    request.l_type = type;
    request.l_whence = SEEK_SET;
    request.l_len = 1;
    return request;
}

/// The lock that others hold on the file: "None", "Read" or "Write". With F_OFD_GETLK, the others
/// are all but this open file description; with F_GETLK, all but this process's record locks. On
/// failure it returns the number of the error.
inline std::string lockOfOthers(int descriptor, int command = F_OFD_GETLK)
{
    struct flock request = lockRequest(F_WRLCK);
    if (::fcntl(descriptor, command, &request) != 0)
        return std::to_string(errno);
    return request.l_type == F_UNLCK ? "None" : request.l_type == F_RDLCK ? "Read" : "Write";
}

/// Sets a record lock of this process (F_SETLK, F_SETLKW) on the file. Returns 0 or an errno.
inline int setClassicLock(int descriptor, int command, short type)
{
    struct flock request = lockRequest(type);
    int answer = 0;
    do {
        answer = ::fcntl(descriptor, command, &request);
    } while (answer != 0 && errno == EINTR);
    return answer == 0 ? 0 : errno;
}

} // namespace QmTest
