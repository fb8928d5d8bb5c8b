#pragma once
// Another process on the same store: it does what it is told over a socket and answers. All waits
// are bounded.

#include <csignal>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tlx/Log.h>

#include "StoreFixture.h"

namespace QmTest {

/// A record whose payload tells which put it is from, as its metadata does by the time of
/// discovery.
inline std::string taggedPayload(long tag)
{
    return std::string(20000, static_cast<char>('a' + tag % 26)) + std::to_string(tag);
}

inline Disc::DiscoveryStatus putTagged(const std::string& subject, long tag)
{
    const Tlx::AutoDereference<Disc::Discovery> record(
        Disc::getDiscoveryDBDatabase()->newDiscovery(Disc::DQ_DISCOVERY_DATA));
    record->setSubject(new Disc::Subject(subject));
    record->setAuthority(new Disc::Authority("srv1", Disc::AT_QMKSERVER));
    record->setAttributes(
        new Disc::CollectionAttributes(Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY,
                                       Tlx::TlxObjTime(tag), Tlx::TlxObjTime(), 5));
    const Disc::DiscoveryResult opened = record->open(Disc::OM_UPDATE, "");
    if (!isSuccess(opened))
        return opened.discStatus;
    const std::string payload = taggedPayload(tag);
    const std::size_t half = payload.size() / 2; // so that there is a moment between
    if (!record->getCollectionData()->writeCollection(half, payload.data()) ||
        !record->getCollectionData()->writeCollection(payload.size() - half, payload.data() + half))
        return Disc::DS_OPEN_FAILED;
    return record->persist().discStatus;
}

struct TaggedRecord
{
    long metadata = -1; ///< the metadata's tag
    long payload = -2;  ///< the payload's, when it is whole
};

inline TaggedRecord findTagged(const std::string& file)
{
    TaggedRecord found;
    const Tlx::AutoDereference<Disc::Discovery> record(
        Disc::getDiscoveryDBDatabase()->getDiscovery(file.c_str()));
    if (!record)
        return found;
    found.metadata = static_cast<long>(record->getAttributes()->getDiscoveryTime().seconds());
    if (!isSuccess(record->open(Disc::OM_READ, "")))
        return found;
    std::string payload;
    char buffer[3000];
    std::size_t count;
    while ((count = record->getCollectionData()->readCollection(sizeof buffer, buffer)) > 0 &&
           count <= sizeof buffer)
        payload.append(buffer, count);
    const std::size_t digits = payload.find_first_of("0123456789");
    if (digits == payload.npos)
        return found;
    const long tag = std::stol(payload.substr(digits));
    if (payload == taggedPayload(tag))
        found.payload = tag;
    return found;
}

/// Forked by the constructor, so it is to be made before any thread and before this process touches
/// the store. Commands, with what they answer:
///
///     init DIR                    "done", and "left N" temporary payloads
///     begin SUBJECT PRIORITY      the status of open(OM_UPDATE)
///     write TEXT                  "1" or "0"
///     persist                     the status
///     drop                        "done": the record written is given up
///     find FILE                   "found" and the payload, or "none"; the record is kept
///     priority                    that of the record found
///     release                     "done": the record found is given up
///     now SECONDS                 "done": sets the clock
///     clean DIR                   "1" when nobody writes a payload there, otherwise "0"
///     sees PATH                   "None", "Read" or "Write": the other processes' lock on the file
///     storm COUNT FIRST           "0": how many puts of a tagged record failed
///     watch COUNT FILE            "0": how many times a tagged record was not whole
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
            ::alarm(100); // no test takes that long
            Tlx::LoggerFactory::instance().setLevel(0);
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
        if (verb == "priority")
            return std::to_string(m_found->getAttributes()->getPriority());
        if (verb == "clean")
            return Disc::CleanupLock(rest.c_str(), Disc::CleanupLock::LM_EXCLUSIVE).isLocked()
                       ? "1"
                       : "0";
        if (verb == "sees")
            return sees(rest);
        if (verb == "storm" || verb == "watch")
            return std::to_string(verb == "storm" ? storm(rest) : watch(rest));
        (verb == "drop" ? m_written : m_found).reset();
        return "done";
    }
    static std::string sees(const std::string& path)
    {
        const auto lock = Tlx::FileLock::open(path, O_RDWR);
        struct flock request = {};
        request.l_type = F_WRLCK;
        request.l_whence = SEEK_SET;
        request.l_len = 1;
        if (!lock || ::fcntl(lock->get_handle(), F_GETLK, &request) != 0)
            return std::to_string(errno);
        return request.l_type == F_UNLCK ? "None" : request.l_type == F_RDLCK ? "Read" : "Write";
    }
    static int storm(const std::string& arguments)
    {
        std::istringstream words(arguments);
        int count = 0;
        long first = 0;
        words >> count >> first;
        int failed = 0;
        for (int i = 0; i < count; ++i)
            failed += putTagged("cl5", first + i) != Disc::DS_SUCCESS;
        return failed;
    }
    /// With no writer in its own process, what it finds must be of one put.
    static int watch(const std::string& arguments)
    {
        std::istringstream words(arguments);
        int count = 0;
        std::string file;
        words >> count;
        std::getline(words >> std::ws, file);
        int mixed = 0;
        for (int i = 0; i < count; ++i) {
            const TaggedRecord found = findTagged(file);
            mixed += found.metadata != found.payload;
        }
        return mixed;
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
