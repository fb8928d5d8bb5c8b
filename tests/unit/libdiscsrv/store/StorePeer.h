#pragma once
// Another process on the same store.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <new>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>

#include <tlx/FileLock.h>
#include <tlx/FileSystem.h>
#include <tlx/Log.h>

#include "StampedRecord.h"
#include "support/KernelLocks.h"
#include "support/PeerProcess.h"

namespace QmTest {

/// Performs commands on a store. The commands and their answers:
///
///     init DIR                    "done", and "left N" temporary payloads
///     begin SUBJECT PRIORITY      the status of open(OM_UPDATE)
///     write TEXT                  "1" or "0"
///     persist                     the status
///     drop                        "done": abandons the record that it writes
///     find FILE                   "found" and the payload, or "none"; keeps the record
///     priority                    the priority of the record found
///     release                     "done": releases the record found
///     now SECONDS                 "done": sets the clock
///     clean DIR                   "1" when nobody writes a payload there, otherwise "0"
///     sees PATH                   "None", "Read" or "Write": the other processes' lock on the file
///     storm COUNT FIRST           "0": how many puts of the stamped record cl5 failed
///     watch COUNT                 "0": how many times that record was not whole
class StoreCommands
{
  public:
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

  private:
    static std::string sees(const std::string& path)
    {
        const auto lock = Tlx::FileLock::open(path, O_RDWR);
        return lock ? lockOfOthers(lock->get_handle()) : std::to_string(errno);
    }
    static int storm(const std::string& arguments)
    {
        std::istringstream words(arguments);
        int count = 0;
        long first = 0;
        words >> count >> first;
        int failed = 0;
        for (int i = 0; i < count; ++i)
            failed += putStamped({.number = first + i}) != Disc::DS_SUCCESS;
        return failed;
    }
    /// Counts the lookups that find metadata and payload of different puts. This process must not
    /// write.
    static int watch(const std::string& arguments)
    {
        int mixed = 0;
        for (int i = std::stoi(arguments); i > 0; --i)
            mixed += !isWholeState(stampsOf("cl5"));
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

    Tlx::AutoDereference<Disc::Discovery> m_written;
    Tlx::AutoDereference<Disc::Discovery> m_found;
};

/// Counts the refused locks of a process in memory that its parent shares.
class RefusedLocks : public Tlx::FileSystem
{
  public:
    using Count = std::atomic<unsigned>;

    RefusedLocks()
        : m_count(new (::mmap(nullptr, sizeof(Count), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Count)
    {
    }
    int lock(int descriptor, int command, struct flock* request) override
    {
        const int answer = FileSystem::lock(descriptor, command, request);
        if (answer != 0)
            ++*m_count;
        return answer;
    }
    unsigned count() const { return *m_count; }

  private:
    Count* const m_count; // it lives until both processes end
};

/// Another process on the same store, which logs nothing. Make it before any thread, and before
/// this process touches the store.
class StorePeer : public PeerProcess
{
  public:
    StorePeer() : StorePeer(std::make_shared<RefusedLocks>()) {}

    /// True once the peer waits for a lock: it tries again and again.
    bool waits() const
    {
        const unsigned before = m_refused->count();
        return eventually([&] { return m_refused->count() > before + 1; });
    }

  private:
    explicit StorePeer(const std::shared_ptr<RefusedLocks>& refused)
        : PeerProcess(
              [commands = std::make_shared<StoreCommands>(), refused](const std::string& command) {
                  Tlx::LoggerFactory::instance().setLevel(0);
                  Tlx::FileSystem::replace(refused.get());
                  return commands->perform(command);
              }),
          m_refused(refused)
    {
    }
    const std::shared_ptr<RefusedLocks> m_refused;
};

} // namespace QmTest
