#pragma once
// Another process and a file, for tests of file locks.

#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <tlx/FileDescriptor.h>
#include <tlx/FileLock.h>

#include "support/Descriptors.h"
#include "support/Eventually.h"
#include "support/KernelLocks.h"
#include "support/PeerProcess.h"
#include "support/TemporaryDirectory.h"

namespace QmTest {

using Veltrane::Quillmark::Tlx::FileDescriptor;
using Veltrane::Quillmark::Tlx::FileLock;

/// How another process locks a file: through FileLock, or with record locks (F_SETLK), as older
/// programs do. Both must conflict with the locks of this process.
enum class PeerKind
{
    FILE_LOCK,
    CLASSIC
};

inline std::ostream& operator<<(std::ostream& out, PeerKind kind)
{
    return out << (kind == PeerKind::FILE_LOCK ? "FileLock" : "Classic");
}

/// The name of an errno: "EBUSY". "ok" for 0.
inline std::string errorName(int error)
{
    const char* const name = error == 0 ? "ok" : ::strerrorname_np(error);
    return name ? name : std::to_string(error);
}

/// A lock that commands work on. Every operation returns 0 or an errno.
class CommandedLock
{
  public:
    virtual ~CommandedLock() = default;
    virtual int take(short type, bool wait) = 0;
    virtual int upgrade() = 0;
    virtual int release() = 0;
    /// Whether a thread of this process waits for the lock.
    virtual bool isWaiting() const = 0;
    /// The lock that others hold.
    virtual std::string sees() const = 0;
};

class CommandedFileLock : public CommandedLock
{
  public:
    explicit CommandedFileLock(std::unique_ptr<FileLock> lock) : m_lock(std::move(lock)) {}
    int take(short type, bool wait) override
    {
        const bool writes = type == F_WRLCK;
        return outcome(wait ? (writes ? m_lock->acquire_write() : m_lock->acquire_read())
                            : (writes ? m_lock->tryacquire_write() : m_lock->tryacquire_read()));
    }
    int upgrade() override { return outcome(m_lock->tryacquire_write_upgrade()); }
    int release() override { return outcome(m_lock->release()); }
    bool isWaiting() const override { return FileLock::counts().waiting > 0; }
    std::string sees() const override { return lockOfOthers(m_lock->get_handle()); }

  private:
    static int outcome(int answer) { return answer == 0 ? 0 : errno; }

    const std::unique_ptr<FileLock> m_lock;
};

class ClassicLock : public CommandedLock
{
  public:
    ClassicLock(const std::string& path, FileDescriptor file)
        : m_path(path), m_file(std::move(file))
    {
    }
    int take(short type, bool wait) override
    {
        const int error = setClassicLock(m_file.get(), wait ? F_SETLKW : F_SETLK, type);
        return error == EAGAIN || error == EACCES ? EBUSY : error;
    }
    int upgrade() override { return take(F_WRLCK, false); }
    int release() override { return take(F_UNLCK, false); }
    bool isWaiting() const override { return isBlocked(::getpid(), m_path); }
    std::string sees() const override { return lockOfOthers(m_file.get(), F_GETLK); }

  private:
    const std::string m_path;
    const FileDescriptor m_file;
};

/// Performs commands on numbered locks. A command is "VERB NUMBER [ARGUMENT]".
class LockCommands
{
  public:
    explicit LockCommands(PeerKind kind) : m_kind(kind) {}

    std::string perform(const std::string& text)
    {
        std::istringstream command(text);
        std::string verb, argument;
        int number = 0;
        command >> verb >> number >> argument;
        if (verb == "limit") {
            FileLock::setWaitLimit(std::chrono::milliseconds(number));
            return "ok";
        }
        if (verb == "waitsgivenup")
            return std::to_string(FileLock::counts().waitsGivenUp - m_givenUpBefore);
        Slot& slot = m_slots[number];
        if (verb == "open")
            return open(slot, argument);
        if (verb == "close") {
            slot.lock.reset();
            return "ok";
        }
        return slot.lock ? perform(slot, verb, argument) : "not open";
    }

  private:
    struct Slot
    {
        std::unique_ptr<CommandedLock> lock;
        std::future<int> waiting; ///< destroyed before the lock
    };

    std::string open(Slot& slot, const std::string& path) const
    {
        slot.lock.reset();
        constexpr int FLAGS = O_RDWR | O_CREAT;
        if (m_kind == PeerKind::CLASSIC) {
            if (FileDescriptor file(::open(path.c_str(), FLAGS | O_CLOEXEC, 0600)); file.isOpen())
                slot.lock = std::make_unique<ClassicLock>(path, std::move(file));
        } else if (auto lock = FileLock::open(path, FLAGS, 0600)) {
            slot.lock = std::make_unique<CommandedFileLock>(std::move(lock));
        }
        return errorName(slot.lock ? 0 : errno);
    }
    static std::string perform(Slot& slot, const std::string& verb, const std::string& argument)
    {
        CommandedLock& lock = *slot.lock;
        if (verb == "sees")
            return lock.sees();
        if (verb == "read" || verb == "write")
            return errorName(lock.take(typeOf(verb), true));
        if (verb == "tryread" || verb == "trywrite")
            return errorName(lock.take(typeOf(verb.substr(3)), false));
        if (verb == "upgrade")
            return errorName(lock.upgrade());
        if (verb == "release")
            return errorName(lock.release());
        if (verb == "begin")
            return begin(slot, argument);
        if (verb == "await")
            return await(slot);
        if (verb != "rival")
            return "what?";
        std::string answer = "ok";
        for (int i = std::stoi(argument); i > 0 && answer == "ok"; --i) {
            answer = errorName(lock.take(F_WRLCK, true));
            lock.release();
        }
        return answer;
    }
    static short typeOf(const std::string& word) { return word == "write" ? F_WRLCK : F_RDLCK; }

    /// Begins a waiting command in a thread. Returns "waits" once it waits, or its outcome.
    static std::string begin(Slot& slot, const std::string& word)
    {
        slot.waiting = std::async(std::launch::async, [&lock = *slot.lock, type = typeOf(word)] {
            return lock.take(type, true);
        });
        const bool begun =
            eventually([&] { return slot.lock->isWaiting() || isReady(slot.waiting, 0); });
        return isReady(slot.waiting, 0) ? await(slot) : begun ? "waits" : "does nothing";
    }
    static std::string await(Slot& slot)
    {
        if (!slot.waiting.valid())
            return "nothing begun";
        return isReady(slot.waiting, 1000 * PATIENCE.count()) ? errorName(slot.waiting.get())
                                                              : "still waits";
    }
    static bool isReady(const std::future<int>& future, long milliseconds)
    {
        return future.wait_for(std::chrono::milliseconds(milliseconds)) ==
               std::future_status::ready;
    }

    const PeerKind m_kind;
    const unsigned long long m_givenUpBefore = FileLock::counts().waitsGivenUp;
    std::map<int, Slot> m_slots;
};

/// Another process that takes and releases locks. Make it before any thread.
class Peer : public PeerProcess
{
  public:
    explicit Peer(PeerKind kind = PeerKind::FILE_LOCK)
        : PeerProcess([commands = std::make_shared<LockCommands>(kind)](
                          const std::string& command) { return commands->perform(command); })
    {
    }

    void open(int number, const std::string& path)
    {
        if (const std::string got = ask("open " + std::to_string(number) + " " + path); got != "ok")
            throw std::runtime_error("peer cannot open: " + got);
    }
    /// The lock that others hold, as the peer sees it: "None", "Read" or "Write".
    std::string sees(int number = 0) { return ask("sees " + std::to_string(number)); }
};

/// A temporary directory with a file in it. While it lives, waiting locks wait for PATIENCE, unless
/// a test sets another limit.
class LockedFile : public TemporaryDirectory
{
  public:
    LockedFile()
    {
        writeFile(path(), "content");
        FileLock::setWaitLimit(PATIENCE);
    }
    ~LockedFile() { FileLock::setWaitLimit(FileLock::DEFAULT_WAIT_LIMIT); }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;

    std::string path(const std::string& name = "file") const
    {
        return TemporaryDirectory::path(name);
    }
    std::unique_ptr<FileLock> open(int flags = O_RDWR) const
    {
        return FileLock::open(path(), flags);
    }
    /// How many waits of this process have ended at their limit since this object was made.
    unsigned long long waitsGivenUp() const
    {
        return FileLock::counts().waitsGivenUp - m_givenUpBefore;
    }

  private:
    const unsigned long long m_givenUpBefore = FileLock::counts().waitsGivenUp;
};

} // namespace QmTest
