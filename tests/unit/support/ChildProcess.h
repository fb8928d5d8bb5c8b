#pragma once
// A forked child that runs one function.

#include <csignal>
#include <cstdio>
#include <functional>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

namespace QmTest {

/// The constructor forks. The child runs the body and ends with the code that the body returns. An
/// alarm ends a child that takes too long, so every wait below is bounded. One thread owns the
/// object.
class ChildProcess
{
  public:
    static constexpr int THROWN = 99; ///< the exit code of a child after an exception in its body
    static constexpr unsigned SECONDS = 100; ///< the time of a child

    explicit ChildProcess(const std::function<int()>& body, unsigned seconds = SECONDS)
    {
        std::fflush(nullptr); // otherwise parent and child both write the buffers
        m_pid = ::fork();
        if (m_pid < 0)
            throw std::runtime_error("no child");
        if (m_pid == 0) {
            ::alarm(seconds);
            try {
                ::_exit(body());
            } catch (...) {
                ::_exit(THROWN);
            }
        }
    }
    /// Kills a child that still runs.
    ~ChildProcess()
    {
        kill();
        wait();
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }

    void signal(int number) const
    {
        if (!m_isReaped)
            ::kill(m_pid, number);
    }
    /// Ends the child as a crash would. It stays a zombie until wait().
    void kill() const
    {
        signal(SIGKILL);
        awaitEnd();
    }
    /// Waits for the end of the child and leaves it a zombie.
    void awaitEnd() const
    {
        siginfo_t info = {};
        if (!m_isReaped)
            ::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOWAIT);
    }
    bool hasEnded() const
    {
        siginfo_t info = {};
        return m_isReaped || (::waitid(P_PID, static_cast<id_t>(m_pid), &info,
                                       WEXITED | WNOHANG | WNOWAIT) == 0 &&
                              info.si_pid == m_pid);
    }
    /// Waits for the end of the child, or for a stop of a traced one. Returns the status as
    /// waitpid(2) does. Reaps a child that has ended.
    int waitForChange()
    {
        if (!m_isReaped)
            m_isReaped = ::waitpid(m_pid, &m_status, 0) != m_pid || !WIFSTOPPED(m_status);
        return m_status;
    }
    /// Waits for the end of the child and reaps it. Returns the status as waitpid(2) does.
    int wait()
    {
        while (!m_isReaped)
            waitForChange();
        return m_status;
    }
    /// Waits for the end of the child. Returns its exit code, or minus the signal that ended it.
    int exitCode()
    {
        const int status = wait();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

  private:
    pid_t m_pid = -1;
    int m_status = -1;
    bool m_isReaped = false;
};

} // namespace QmTest
