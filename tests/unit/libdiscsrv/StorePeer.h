#pragma once
// Another process on the same store: it does what it is told over a socket and answers. All waits
// are bounded.

#include <csignal>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "StoreFixture.h"

namespace QmTest {

/// Forked by the constructor, so it is to be made before any thread and before this process touches
/// the store. Commands, with what they answer:
///
///     init DIR                    "done", and "left N" temporary payloads
///     begin SUBJECT PRIORITY      the status of open(OM_UPDATE)
///     write TEXT                  "1" or "0"
///     persist                     the status
///     drop                        "done": the record written is given up
///     find FILE                   "found" and the payload, or "none"; the record is kept
///     release                     "done": the record found is given up
///     now SECONDS                 "done": sets the clock
class StorePeer
{
  public:
    StorePeer()
    {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
            throw std::runtime_error("no socket pair");
        m_pid = ::fork();
        if (m_pid < 0)
            throw std::runtime_error("no child");
        if (m_pid == 0) {
            ::close(ends[0]);
            ::alarm(120); // no test takes that long
            serve(ends[1]);
            ::_exit(0);
        }
        ::close(ends[1]);
        m_socket = ends[0];
    }
    ~StorePeer()
    {
        ::close(m_socket);
        ::waitpid(m_pid, nullptr, 0);
    }
    StorePeer(const StorePeer&) = delete;
    StorePeer& operator=(const StorePeer&) = delete;

    void tell(const std::string& command)
    {
        if (::send(m_socket, command.data(), command.size(), MSG_NOSIGNAL) < 0)
            throw std::runtime_error("the peer is gone");
    }
    /// Whether an answer comes within a time.
    bool answers(int milliseconds)
    {
        pollfd wait{m_socket, POLLIN, 0};
        return ::poll(&wait, 1, milliseconds) == 1;
    }
    std::string answer()
    {
        if (!answers(30000))
            return "no answer";
        char buffer[256];
        const ssize_t size = ::recv(m_socket, buffer, sizeof buffer, 0);
        return size > 0 ? std::string(buffer, static_cast<std::size_t>(size)) : "gone";
    }
    std::string ask(const std::string& command)
    {
        tell(command);
        return answer();
    }
    /// Ends it as a crash would.
    void kill()
    {
        ::kill(m_pid, SIGKILL);
        siginfo_t info;
        ::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOWAIT);
    }
    pid_t pid() const { return m_pid; }

  private:
    void serve(int socket)
    {
        char buffer[4096];
        ssize_t size;
        while ((size = ::recv(socket, buffer, sizeof buffer, 0)) > 0) {
            const std::string reply = perform(std::string(buffer, static_cast<std::size_t>(size)));
            if (::send(socket, reply.data(), reply.size(), MSG_NOSIGNAL) < 0)
                return;
        }
    }
    std::string perform(const std::string& command)
    {
        std::istringstream words(command);
        std::string verb;
        words >> verb;
        std::string rest;
        std::getline(words >> std::ws, rest);
        if (verb == "init") {
            Disc::getDiscoveryDBDatabase()->init(rest);
            int left = 0;
            for (const auto& entry : std::filesystem::directory_iterator(rest))
                left += entry.path().extension() == ".updating";
            return "done, left " + std::to_string(left);
        }
        if (verb == "now") {
            Tlx::TlxObjTime::setClock([=] { return Tlx::TlxObjTime(std::stol(rest)); });
            return "done";
        }
        if (verb == "begin")
            return begin(rest);
        if (verb == "write")
            return m_written->getCollectionData()->writeCollection(rest.size(), rest.data()) ? "1"
                                                                                             : "0";
        if (verb == "persist")
            return std::to_string(m_written->persist().discStatus);
        if (verb == "find")
            return find(rest);
        (verb == "drop" ? m_written : m_found).reset();
        return "done";
    }
    std::string begin(const std::string& arguments)
    {
        std::istringstream words(arguments);
        std::string subject;
        unsigned priority = 0;
        words >> subject >> priority;
        m_written.reset(Disc::getDiscoveryDBDatabase()->newDiscovery(Disc::DQ_DISCOVERY_DATA));
        m_written->setSubject(new Disc::Subject(subject));
        m_written->setAuthority(new Disc::Authority("srv1", Disc::AT_QMKSERVER));
        m_written->setAttributes(
            new Disc::CollectionAttributes(Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY,
                                           Tlx::TlxObjTime::now(), Tlx::TlxObjTime(), priority));
        return std::to_string(m_written->open(Disc::OM_UPDATE, "").discStatus);
    }
    std::string find(const std::string& file)
    {
        m_found.reset(Disc::getDiscoveryDBDatabase()->getDiscovery(file.c_str()));
        if (!m_found)
            return "none";
        if (!isSuccess(m_found->open(Disc::OM_READ, "")))
            return "found, unreadable";
        char buffer[200];
        const std::size_t count =
            m_found->getCollectionData()->readCollection(sizeof buffer, buffer);
        return "found " + std::string(buffer, std::min(count, sizeof buffer));
    }

    pid_t m_pid = -1;
    int m_socket = -1;
    Tlx::AutoDereference<Disc::Discovery> m_written;
    Tlx::AutoDereference<Disc::Discovery> m_found;
};

} // namespace QmTest
