#pragma once
// Another process and a file, for tests of file locks.

#include <cerrno>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>

#include <tlx/FileLock.h>

#include "support/Descriptors.h"
#include "support/KernelLocks.h"
#include "support/PeerProcess.h"
#include "support/TemporaryDirectory.h"

namespace QmTest {

using Veltrane::Quillmark::Tlx::FileLock;

/// Performs commands on numbered file locks. A command is "VERB NUMBER [ARGUMENT]".
class FileLockCommands
{
  public:
    std::string perform(const std::string& text)
    {
        std::istringstream command(text);
        std::string verb, argument;
        int number = 0;
        command >> verb >> number >> argument;
        std::unique_ptr<FileLock>& lock = m_locks[number];
        if (verb == "open") {
            lock = FileLock::open(argument, O_RDWR | O_CREAT, 0600);
            return outcome(lock ? 0 : -1);
        }
        if (verb == "close") {
            lock.reset();
            return "ok";
        }
        return lock ? perform(*lock, verb, argument) : "not open";
    }

  private:
    static std::string perform(FileLock& lock, const std::string& verb, const std::string& argument)
    {
        if (verb == "sees")
            return lockOfOthers(lock.get_handle());
        if (verb == "read")
            return outcome(lock.acquire_read());
        if (verb == "write")
            return outcome(lock.acquire_write());
        if (verb == "tryread")
            return outcome(lock.tryacquire_read());
        if (verb == "trywrite")
            return outcome(lock.tryacquire_write());
        if (verb == "upgrade")
            return outcome(lock.tryacquire_write_upgrade());
        if (verb == "release")
            return outcome(lock.release());
        if (verb != "rival")
            return "what?";
        std::string answer = "ok";
        for (int i = std::stoi(argument); i > 0 && answer == "ok"; --i) {
            answer = outcome(lock.acquire_write());
            lock.release();
        }
        return answer;
    }
    static std::string outcome(int answer)
    {
        return answer == 0        ? "ok"
               : errno == EBUSY   ? "EBUSY"
               : errno == EDEADLK ? "EDEADLK"
                                  : std::to_string(errno);
    }

    std::map<int, std::unique_ptr<FileLock>> m_locks;
};

/// Another process that takes and releases locks. Make it before any thread.
class Peer : public PeerProcess
{
  public:
    Peer()
        : PeerProcess([commands = std::make_shared<FileLockCommands>()](
                          const std::string& command) { return commands->perform(command); })
    {
    }

    void open(int number, const std::string& path)
    {
        if (const std::string got = ask("open " + std::to_string(number) + " " + path); got != "ok")
            throw std::runtime_error("peer cannot open: " + got);
    }
    /// The lock of other processes, as the peer sees it: "None", "Read" or "Write".
    std::string sees(int number = 0) { return ask("sees " + std::to_string(number)); }
};

/// A temporary directory with a file in it.
class LockedFile : public TemporaryDirectory
{
  public:
    LockedFile() { writeFile(path(), "content"); }

    std::string path(const std::string& name = "file") const
    {
        return TemporaryDirectory::path(name);
    }
    std::unique_ptr<FileLock> open(int flags = O_RDWR) const
    {
        return FileLock::open(path(), flags);
    }
};

} // namespace QmTest
