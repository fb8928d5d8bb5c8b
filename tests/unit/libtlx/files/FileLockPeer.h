#pragma once
// Another process for tests of file locks: it does what it is told over a socket and answers. All
// waits are bounded.

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tlx/FileLock.h>

namespace QmTest {

using Veltrane::Quillmark::Tlx::FileLock;

constexpr std::chrono::seconds PATIENCE{30};

/// Repeats the check, giving the processor away in between, until it holds or patience ends.
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

inline ino_t inodeOf(const std::string& path)
{
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

/// Whether a process stands waiting in the kernel for a lock on the file: the lines of /proc/locks
/// with an arrow.
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

/// Forked by the constructor, so it is to be made before any thread. Its holders have numbers.
class Peer
{
  public:
    Peer()
    {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
            throw std::runtime_error("no socket pair");
        m_pid = ::fork();
        if (m_pid < 0)
            throw std::runtime_error("no child");
        if (m_pid == 0) {
            ::close(ends[0]);
            serve(ends[1]);
            ::_exit(0);
        }
        ::close(ends[1]);
        m_socket = ends[0];
    }
    ~Peer()
    {
        ::close(m_socket);
        if (!eventually([this] { return ::waitpid(m_pid, nullptr, WNOHANG) != 0; })) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    pid_t pid() const { return m_pid; }

    /// Sends a command; the answer is fetched with answer().
    void tell(const std::string& command)
    {
        if (::send(m_socket, command.data(), command.size(), MSG_NOSIGNAL) < 0)
            throw std::runtime_error("peer is gone");
    }
    std::string answer()
    {
        pollfd wait{m_socket, POLLIN, 0};
        const int milliseconds = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(PATIENCE).count());
        if (::poll(&wait, 1, milliseconds) != 1)
            return "no answer";
        char buffer[64];
        const ssize_t size = ::recv(m_socket, buffer, sizeof buffer, 0);
        return size > 0 ? std::string(buffer, static_cast<std::size_t>(size)) : "peer is gone";
    }
    std::string ask(const std::string& command)
    {
        tell(command);
        return answer();
    }

    void open(int number, const std::string& path)
    {
        if (const std::string got = ask("open " + std::to_string(number) + " " + path); got != "ok")
            throw std::runtime_error("peer cannot open: " + got);
    }
    /// What this process sees of the others' locks: "None", "Read" or "Write".
    std::string sees(int number = 0) { return ask("sees " + std::to_string(number)); }

  private:
    static std::string outcome(int answer)
    {
        return answer == 0        ? "ok"
               : errno == EBUSY   ? "EBUSY"
               : errno == EDEADLK ? "EDEADLK"
                                  : std::to_string(errno);
    }
    static std::string look(const FileLock& lock)
    {
        struct flock request = {};
        request.l_type = F_WRLCK;
        request.l_whence = SEEK_SET;
        request.l_len = 1;
        if (::fcntl(lock.get_handle(), F_GETLK, &request) != 0)
            return std::to_string(errno);
        return request.l_type == F_UNLCK ? "None" : request.l_type == F_RDLCK ? "Read" : "Write";
    }
    static void serve(int socket)
    {
        std::map<int, std::unique_ptr<FileLock>> locks;
        char buffer[4096];
        for (;;) {
            const ssize_t size = ::recv(socket, buffer, sizeof buffer, 0);
            if (size <= 0)
                return;
            std::istringstream command(std::string(buffer, static_cast<std::size_t>(size)));
            std::string verb, argument;
            int number = 0;
            command >> verb >> number >> argument;
            std::unique_ptr<FileLock>& lock = locks[number];
            std::string answer = "ok";
            if (verb == "open") {
                lock = FileLock::open(argument, O_RDWR | O_CREAT, 0600);
                answer = outcome(lock ? 0 : -1);
            } else if (verb == "close") {
                lock.reset();
            } else if (!lock) {
                answer = "not open";
            } else if (verb == "sees") {
                answer = look(*lock);
            } else if (verb == "read") {
                answer = outcome(lock->acquire_read());
            } else if (verb == "write") {
                answer = outcome(lock->acquire_write());
            } else if (verb == "tryread") {
                answer = outcome(lock->tryacquire_read());
            } else if (verb == "trywrite") {
                answer = outcome(lock->tryacquire_write());
            } else if (verb == "upgrade") {
                answer = outcome(lock->tryacquire_write_upgrade());
            } else if (verb == "release") {
                answer = outcome(lock->release());
            } else if (verb == "rival") {
                for (int i = std::stoi(argument); i > 0 && answer == "ok"; --i) {
                    answer = outcome(lock->acquire_write());
                    lock->release();
                }
            } else {
                answer = "what?";
            }
            if (::send(socket, answer.data(), answer.size(), MSG_NOSIGNAL) < 0)
                return;
        }
    }

    pid_t m_pid = -1;
    int m_socket = -1;
};

/// A directory of the test's own with one file in it.
class LockedFile
{
  public:
    LockedFile()
    {
        std::string name = std::filesystem::temp_directory_path() / "filelock-XXXXXX";
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary directory");
        m_directory = name;
        std::ofstream(path()) << "content";
    }
    ~LockedFile() { std::filesystem::remove_all(m_directory); }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;

    std::string path(const std::string& name = "file") const { return m_directory + "/" + name; }
    std::unique_ptr<FileLock> open(int flags = O_RDWR) const
    {
        return FileLock::open(path(), flags);
    }

  private:
    std::string m_directory;
};

/// How many descriptors this process has.
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
