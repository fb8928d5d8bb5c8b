#pragma once
// A child process that answers commands over a socket.

#include <array>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/ChildProcess.h"
#include "support/Eventually.h"

namespace QmTest {

/// The constructor forks, so make the object before any thread. The child calls the function once
/// for each command and sends back what it returns. It destroys the function and ends when the
/// parent closes the socket. A command and an answer have at most 4096 bytes. An alarm ends a child
/// that works on one command for too long, or waits too long for the next one.
class PeerProcess
{
  public:
    using Perform = std::function<std::string(const std::string& command)>;

    explicit PeerProcess(Perform perform)
        : m_ends(socketPair()),
          m_child([this, &perform] { return serve(m_ends, std::move(perform)); })
    {
        ::close(m_ends[1]);
    }
    ~PeerProcess() { stop(); }
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    pid_t pid() const { return m_child.pid(); }

    /// Sends a command. answer() fetches the answer.
    void tell(const std::string& command) const
    {
        if (::send(m_ends[0], command.data(), command.size(), MSG_NOSIGNAL) < 0)
            throw std::runtime_error("the peer is gone");
    }
    /// Whether an answer comes within a time.
    bool answers(std::chrono::milliseconds time) const
    {
        pollfd wait{m_ends[0], POLLIN, 0};
        return ::poll(&wait, 1, static_cast<int>(time.count())) == 1;
    }
    std::string answer() const
    {
        if (!answers(PATIENCE))
            return "no answer";
        std::array<char, 4096> buffer;
        const ssize_t size = ::recv(m_ends[0], buffer.data(), buffer.size(), 0);
        return size > 0 ? std::string(buffer.data(), static_cast<std::size_t>(size)) : "gone";
    }
    std::string ask(const std::string& command) const
    {
        tell(command);
        return answer();
    }

    /// Stops the process where it is, without ending it.
    void freeze() const { m_child.signal(SIGSTOP); }
    /// Ends it as a crash would.
    void kill() const { m_child.kill(); }
    /// Lets it end by itself and returns its exit code, or minus the signal that ended it.
    int stop()
    {
        if (m_ends[0] != -1) {
            ::shutdown(m_ends[0], SHUT_RDWR); // other children may have inherited the descriptor
            ::close(m_ends[0]);
        }
        m_ends[0] = -1;
        if (!eventually([this] { return m_child.hasEnded(); }))
            m_child.kill();
        return m_child.exitCode();
    }

  private:
    using Ends = std::array<int, 2>; // the parent's, the child's

    static Ends socketPair()
    {
        Ends ends;
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0)
            throw std::runtime_error("no socket pair");
        // Use high numbers. The reactor of a small ORB needs the low ones, because it accepts no
        // descriptor above its size.
        for (int& end : ends) {
            const int high = ::fcntl(end, F_DUPFD_CLOEXEC, 100);
            ::close(end);
            end = high;
        }
        return ends;
    }
    static int serve(const Ends& ends, Perform perform)
    {
        ::close(ends[0]);
        std::array<char, 4096> buffer;
        ssize_t size;
        while ((size = ::recv(ends[1], buffer.data(), buffer.size(), 0)) > 0) {
            ::alarm(ChildProcess::SECONDS);
            const std::string answer =
                perform(std::string(buffer.data(), static_cast<std::size_t>(size)));
            if (::send(ends[1], answer.data(), answer.size(), MSG_NOSIGNAL) < 0)
                break;
        }
        perform = nullptr;
        return 0;
    }

    Ends m_ends;
    ChildProcess m_child;
};

} // namespace QmTest
