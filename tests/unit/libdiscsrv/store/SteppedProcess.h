#pragma once
// A child process that is stopped at each of its file operations, and can be killed there: before
// the operation, or in the middle of a write. So tests can simulate a crash at every place.

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tlx/Log.h>

#include "support/ChildProcess.h"

namespace QmTest {

class SteppedProcess
{
  public:
    /// When to kill: before the operation with this number, counted from 1; 0 for never.
    struct Crash
    {
        unsigned at;
        /// If not 0: count only writes, and do so many eighths of the write at which the child is
        /// killed.
        unsigned eighths;
    };
    enum Outcome
    {
        ENDED,  ///< no operation had that number, and the work returned true
        KILLED, ///< at that operation
        FAILED, ///< the work returned false, or something else ended the child
        CANNOT_TRACE
    };

    /// Forks, prepares without stops, and steps through the work.
    static Outcome run(const std::function<void()>& prepare, const std::function<bool()>& work,
                       Crash crash = {0, 0})
    {
        return SteppedProcess(crash).step(prepare, work);
    }
    /// The same without a kill. Lists every operation that changes or syncs something, with the
    /// name of its open file if it has one: "write 0.updating", "rename".
    static Outcome trace(const std::function<void()>& prepare, const std::function<bool()>& work,
                         std::vector<std::string>& operations)
    {
        SteppedProcess process({0, 0});
        const Outcome outcome = process.step(prepare, work);
        operations = process.m_operations;
        return outcome;
    }

  private:
    struct Operation
    {
        const char* name;
        bool hasFile;  ///< its first argument is a descriptor
        bool isTraced; ///< changes or syncs something
    };

    explicit SteppedProcess(Crash crash) : m_crash(crash) {}

    static Operation operationOf(std::uint64_t number)
    {
        switch (number) {
#ifdef SYS_open
        case SYS_open:
#endif
        case SYS_openat:
            return {"open", false, false};
        case SYS_close:
            return {"close", true, false};
        case SYS_write:
        case SYS_pwrite64:
            return {"write", true, true};
        case SYS_fallocate:
            return {"fallocate", true, true};
        case SYS_ftruncate:
            return {"ftruncate", true, true};
        case SYS_fsync:
        case SYS_fdatasync:
            return {"fsync", true, true};
#ifdef SYS_rename
        case SYS_rename:
#endif
        case SYS_renameat:
        case SYS_renameat2:
            return {"rename", false, true};
#ifdef SYS_unlink
        case SYS_unlink:
#endif
        case SYS_unlinkat:
            return {"unlink", false, true};
#ifdef SYS_mkdir
        case SYS_mkdir:
#endif
        case SYS_mkdirat:
            return {"mkdir", false, true};
        default:
            return {nullptr, false, false};
        }
    }

    Outcome step(const std::function<void()>& prepare, const std::function<bool()>& work)
    {
        ChildProcess child([&] {
            if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
                return NOT_TRACED;
            // A line logged would be one more write.
            Veltrane::Quillmark::Tlx::LoggerFactory::instance().setLevel(0);
            prepare();
            ::raise(SIGSTOP);
            return work() ? EXIT_SUCCESS : EXIT_FAILURE;
        });
        m_child = child.pid();
        const int status = child.waitForChange();
        if (!WIFSTOPPED(status))
            return WIFEXITED(status) && WEXITSTATUS(status) == NOT_TRACED ? CANNOT_TRACE : FAILED;
        if (::ptrace(PTRACE_SETOPTIONS, m_child, nullptr,
                     PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0)
            return CANNOT_TRACE;
        return follow(child);
    }

    /// Steps on until the outcome is known. The caller's object ends the child.
    Outcome follow(ChildProcess& child)
    {
        long signal = 0; // a signal for the child, to be delivered
        for (;;) {
            if (::ptrace(PTRACE_SYSCALL, m_child, nullptr, signal) != 0)
                return CANNOT_TRACE;
            const int status = child.waitForChange();
            if (WIFEXITED(status))
                return WEXITSTATUS(status) == EXIT_SUCCESS ? ENDED : FAILED;
            if (!WIFSTOPPED(status))
                return FAILED;
            signal = 0;
            if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
                signal = WSTOPSIG(status);
                continue;
            }
            __ptrace_syscall_info info = {};
            if (::ptrace(PTRACE_GET_SYSCALL_INFO, m_child, sizeof info, &info) <= 0)
                return CANNOT_TRACE;
            if (info.op == PTRACE_SYSCALL_INFO_ENTRY && isHit(info.entry.nr, info.entry.args))
                return KILLED;
        }
    }

    bool isHit(std::uint64_t number, const __uint64_t* arguments)
    {
        const Operation operation = operationOf(number);
        if (!operation.name)
            return false;
        const std::string file =
            operation.hasFile ? std::filesystem::path(fileOf(arguments[0])).filename().string()
                              : "";
        if (operation.isTraced)
            m_operations.push_back(operation.name + (file.empty() ? "" : " " + file));
        if (m_crash.eighths == 0)
            return ++m_count == m_crash.at;
        if (operation.name != std::string("write") || ++m_count != m_crash.at)
            return false;
        tear(arguments);
        return true;
    }

    /// The path of a file that the child has open.
    std::string fileOf(std::uint64_t fd) const
    {
        std::error_code error;
        return std::filesystem::read_symlink(entry("fd", fd), error).string();
    }
    std::string entry(const char* kind, std::uint64_t fd) const
    {
        return "/proc/" + std::to_string(m_child) + "/" + kind + "/" + std::to_string(fd);
    }

    /// Does the first part of the write(2) that the child is about to do.
    void tear(const __uint64_t* arguments) const
    {
        std::ifstream description(entry("fdinfo", arguments[0]));
        std::string word;
        off_t position = 0;
        description >> word >> position;
        std::string bytes(arguments[2] * m_crash.eighths / 8, '\0');
        const iovec here{bytes.data(), bytes.size()};
        // The address belongs to the child. For this process it is a number.
        iovec there{};
        there.iov_base = reinterpret_cast<void*>(arguments[1]); // NOLINT
        there.iov_len = bytes.size();
        const int fd = ::open(entry("fd", arguments[0]).c_str(), O_WRONLY | O_CLOEXEC);
        struct stat status = {};
        if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
            ::process_vm_readv(m_child, &here, 1, &there, 1, 0) ==
                static_cast<ssize_t>(bytes.size()))
            (void)!::pwrite(fd, bytes.data(), bytes.size(), position);
        ::close(fd);
    }

    static constexpr int NOT_TRACED = 77;

    const Crash m_crash;
    pid_t m_child = -1;
    unsigned m_count = 0;
    std::vector<std::string> m_operations;
};

} // namespace QmTest
